#include "AgentRuntime.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "ControlRequests.h"
#include "Kel/Exception.h"
#include "Kel/Trace.h"
#include "StatisticsSizing.h"

namespace Agent {

namespace {

Kel::TraceHandle traceAgent("Agent");

constexpr Bexa::TaskPriority signalTaskPriority{1};

void printErrors(const ConfigErrors& errors) {
   for (const ConfigError& e : errors) {
      std::fprintf(stderr, "%s\n", e.str().c_str());
   }
}

std::string counted(std::size_t n, std::string_view thing) {
   return fmt::format("{} {}{}", n, thing, n == 1 ? "" : "s");
}

// What the agent runs, for the service manager's status line.
std::string statusLine(const AgentConfig& config) {
   std::size_t trackers = 0;
   std::size_t exporters = 0;
   std::size_t collectors = 0;
   for (const auto& [type, tracking] : config.tracking) {
      trackers += tracking.trackers.size();
      for (const auto& [trackerName, tracker] : tracking.trackers) {
         exporters += tracker.exporters.size();
         for (const auto& [exporterName, exporter] : tracker.exporters) {
            collectors += exporter.collectors.size();
         }
      }
   }
   return fmt::format("Exporting: {}, {}, {}", counted(trackers, "tracker"),
                      counted(exporters, "exporter"), counted(collectors, "collector"));
}

}  // namespace

AgentRuntime::AgentRuntime(Options options) : options_(std::move(options)) {}

AgentRuntime::~AgentRuntime() {
   signalWatch_ = {};
   if (signalFd_ >= 0) {
      ::close(signalFd_);
   }
}

std::optional<AgentConfig> AgentRuntime::loadConfig() const {
   LoadResult result = load(options_.configPath);
   if (!result.config) {
      printErrors(result.errors);
      return std::nullopt;
   }
   if (options_.statisticsTable) {
      result.config->statisticsTable = *options_.statisticsTable;
   }
   return result.config;
}

bool AgentRuntime::start() {
   const auto config = loadConfig();
   if (!config) {
      return false;
   }
   controlChannelIs(config->statisticsTable);
   init_ = Ipfix::ipfixInitSmFactory();
   stats_ = Vorpa::Ipfix::collectorStatisticsFactory(config->statisticsTable,
                                                     statisticsCapacity(*config));
   writer_ = std::make_unique<ModelWriter>(init_->elementIdCollection(), interfaces_, vrfs_);
   writer_->configIs(*config);
   librariesIs(*config);

   sigset_t signals;
   sigemptyset(&signals);
   for (int sig : {SIGHUP, SIGTERM, SIGINT}) {
      sigaddset(&signals, sig);
   }
   if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
      throw Kel::ErrnoException(errno, "sigprocmask");
   }
   signalFd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
   if (signalFd_ < 0) {
      throw Kel::ErrnoException(errno, "signalfd");
   }
   signalTask_ = std::make_unique<Bexa::Task>(scheduler_, "AgentSignal", signalTaskPriority,
                                              [this] { handleSignal(); });
   signalWatch_ = scheduler_->fdWatchIs(signalFd_, signalTask_.get());
   KEL_TRACE(traceAgent, 3, "Started with {} on table {}", options_.configPath,
             config->statisticsTable);
   notifier_.ready(statusLine(*config));
   return true;
}

// The control socket comes before the statistics table, so that a second
// agent started on the same table stops before it replaces the first one's
// table. A socket that cannot be named (the command line accepts longer
// table names than the file, and the environment may name no usable
// directory) leaves the agent without one, and it says so: exporting goes on.
void AgentRuntime::controlChannelIs(const Kel::Name& statisticsTable) {
   Kel::String error;
   auto location = Control::socketLocation(
       statisticsTable, Control::SocketPlacement::fromEnvironment(options_.controlSocket), &error);
   if (!location) {
      std::fprintf(stderr, "ipfix-agent: no control socket: %s\n", error.c_str());
      return;
   }
   control_ = std::make_unique<ControlChannel>(
       scheduler_, std::move(*location), [this](std::string_view request) {
          return answerControlRequest(request, writer_->config(), *configReq_);
       });
}

// Creates the library of each type the configuration uses, in the start order
// the library documents; types already running keep theirs.
void AgentRuntime::librariesIs(const AgentConfig& config) {
   for (const auto& [type, tracking] : config.tracking) {
      if (libraries_.contains(type)) {
         continue;
      }
      const TrackingModel& model = writer_->model(type);
      TypeLibrary lib;
      lib.info = Kel::makeActive<FlowTracking::FlowTrackingInfo>(type);
      lib.tracking = FlowTracking::flowTrackingInfoSmFactory(scheduler_, model.config, lib.info,
                                                             init_->agentInfo());
      lib.templates =
          FlowTracking::templateSmFactory(scheduler_, configReq_, model.status, model.config,
                                          stats_, lib.info, init_->elementIdCollection());
      lib.optionsData = FlowTracking::optionsDataManagerSmFactory(
          model.config, model.status, lib.info, interfaces_, vrfs_.status(), stats_, scheduler_);
      libraries_.emplace(type, std::move(lib));
      KEL_TRACE(traceAgent, 3, "Created the {} flow-tracking library",
                FlowTracking::trackingTypeString(type));
   }
}

void AgentRuntime::handleSignal() {
   signalfd_siginfo info{};
   while (::read(signalFd_, &info, sizeof info) == sizeof info) {
      if (info.ssi_signo == SIGHUP) {
         reload();
      } else {
         KEL_TRACE(traceAgent, 3, "Stopping on signal {}", info.ssi_signo);
         notifier_.stopping();
         scheduler_->stop();
      }
   }
}

void AgentRuntime::reload() {
   KEL_TRACE(traceAgent, 3, "Reloading {}", options_.configPath);
   notifier_.reloading();
   const bool applied = reloadApplied();
   notifier_.ready(
       statusLine(writer_->config()) +
       (applied ? "" : fmt::format("; {} not applied, see the log", options_.configPath)));
}

bool AgentRuntime::reloadApplied() {
   const auto config = loadConfig();
   if (!config) {
      std::fprintf(stderr, "ipfix-agent: %s not applied, still running the previous one\n",
                   options_.configPath.c_str());
      return false;
   }
   const AgentConfig& running = writer_->config();
   const Kel::U32 capacity = stats_->statsControl().capacity();
   if (statisticsEntries(*config) > capacity) {
      std::fprintf(stderr,
                   "ipfix-agent: %s needs %llu statistics entries and the running table holds "
                   "%u; not applied, still running the previous one. Restart ipfix-agent to make "
                   "the table anew for it (statistics-capacity sets its size)\n",
                   options_.configPath.c_str(),
                   static_cast<unsigned long long>(statisticsEntries(*config)), capacity);
      return false;
   }
   if (config->statisticsTable != running.statisticsTable ||
       config->statisticsCapacity != running.statisticsCapacity) {
      std::fprintf(stderr,
                   "ipfix-agent: the statistics table and its capacity change only with a "
                   "restart; keeping %s of %u entries\n",
                   running.statisticsTable.c_str(), capacity);
   }
   AgentConfig applied = *config;
   applied.statisticsTable = running.statisticsTable;
   applied.statisticsCapacity = running.statisticsCapacity;
   writer_->configIs(applied);
   librariesIs(applied);
   return true;
}

// Removing the whole configuration takes the library down as a switch would:
// machines before records, sockets closed, the removed collectors' statistics
// deleted. The libraries go afterwards. The control socket goes first, so no
// request arrives during the teardown and the socket file is removed.
void AgentRuntime::shutdown() {
   control_.reset();
   AgentConfig empty;
   empty.statisticsTable = writer_->config().statisticsTable;
   writer_->configIs(empty);
   libraries_.clear();
}

int AgentRuntime::run() {
   scheduler_->run();
   shutdown();
   return 0;
}

}  // namespace Agent
