// ipfix-stats: prints the collector statistics that the flow-tracking agent
// keeps in shared memory, once or after every change; `ipfix-stats clear`
// asks the agent to clear them; `ipfix-stats serve` answers a monitoring
// system's scrapes with them.

#include <signal.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "ClearCommand.h"
#include "ExitCode.h"
#include "Kel/System.h"
#include "LiveTable.h"
#include "MetricsServer.h"
#include "OpenMetricsReport.h"
#include "StatsSnapshot.h"

namespace {

using IpfixStats::ExitCode;

volatile std::sig_atomic_t stopRequested = 0;

void requestStop(int) {
   stopRequested = 1;
}

// Installed without SA_RESTART, so that a watch asleep on the table wakes up
// and ends cleanly.
void installStopHandlers() {
   struct sigaction action {};
   action.sa_handler = requestStop;
   sigemptyset(&action.sa_mask);
   sigaction(SIGINT, &action, nullptr);
   sigaction(SIGTERM, &action, nullptr);
}

struct Options {
   std::string table{Vorpa::Ipfix::defaultCollectorStatisticsTableName};
   std::string format = "text";
   bool watch = false;
   Control::ClearRequest clear;
   std::optional<std::string> controlSocket;
   std::string listen;
};

void print(const IpfixStats::Snapshot& snapshot, const Options& options) {
   const Kel::Seconds now = Kel::System::currentTime();
   if (options.format == "json") {
      // One document per line when watching, so that a consumer can split them.
      std::cout << IpfixStats::jsonText(jsonReport(snapshot.summary, snapshot.trackers, now),
                                        options.watch ? -1 : 2)
                << '\n';
   } else if (options.format == "openmetrics") {
      std::cout << openMetricsReport(snapshot.summary, snapshot.trackers, now);
   } else {
      std::cout << textReport(snapshot.summary, snapshot.trackers, now);
   }
   std::cout.flush();
}

// How often a watch with nothing to print checks that its table is still the
// live one, so that it follows a restarted agent within that time.
constexpr Kel::Seconds liveCheckInterval = 0.5;
// A writer restarting while a snapshot is taken leaves it on a segment that
// nobody writes any more; it is taken again from the new one, a few times at
// most.
constexpr int maxRemounts = 3;

ExitCode run(const Options& options) {
   IpfixStats::LiveTable table(options.table);
   // The sequence is taken before each snapshot, so a change made while it is
   // taken brings another one.
   Kel::U64 cursor = table.reader().changeSeq();
   IpfixStats::Snapshot snapshot = IpfixStats::takeSnapshot(table.reader());
   for (int remount = 0; remount < maxRemounts && table.refresh(); ++remount) {
      cursor = table.reader().changeSeq();
      snapshot = IpfixStats::takeSnapshot(table.reader());
   }
   print(snapshot, options);
   if (options.watch) {
      installStopHandlers();
   }
   while (options.watch && !stopRequested) {
      // A replaced segment changes no more, so its watch times out and finds
      // the new one.
      if (table.reader().waitForChange(cursor, liveCheckInterval) ||
          (!stopRequested && table.refresh())) {
         cursor = table.reader().changeSeq();
         if (options.format == "text") {
            std::cout << '\n';
         }
         print(IpfixStats::takeSnapshot(table.reader()), options);
      }
   }
   return IpfixStats::exitOk;
}

// Throws Vorpa::MountError for a table name that no table can have.
ExitCode serveTable(const Options& options) {
   const auto listen = IpfixStats::parseListenAddress(options.listen);
   if (!listen) {
      std::cerr << "ipfix-stats: --listen: '" << options.listen
                << "' is not ADDR:PORT (an IPv4 address) or [ADDR]:PORT (an IPv6 address)\n";
      return IpfixStats::exitUsage;
   }
   IpfixStats::ScrapeSource source(options.table);
   return IpfixStats::serveMetrics(source, *listen);
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{
       "Prints the IPFIX export statistics of every collector, per flow tracker and exporter, "
       "from the flow-tracking agent's shared-memory table."};
   Options options;
   bool json = false;
   app.add_option("--table", options.table, "Name of the statistics table")->capture_default_str();
   CLI::Option* jsonFlag = app.add_flag("--json", json, "Print JSON (the same as --format json)");
   CLI::Option* format =
       app.add_option("--format", options.format,
                      "Print text, json or openmetrics (the text format Prometheus scrapes)")
           ->check(CLI::IsMember({"text", "json", "openmetrics"}))
           ->capture_default_str();
   CLI::Option* watch = app.add_flag(
       "--watch", options.watch, "Print again after every change of the table, until interrupted");
   // The subcommands read --table too, before or after them.
   app.fallthrough();
   CLI::App* clear = app.add_subcommand(
       "clear",
       "Ask the running ipfix-agent that writes the table to clear the counters of a tracker, "
       "of one exporter of it, or of everything");
   CLI::Option* tracker =
       clear->add_option("--tracker", options.clear.tracker, "Clear only this flow tracker");
   CLI::Option* exporter =
       clear->add_option("--exporter", options.clear.exporter,
                         "Clear only this exporter of the tracker (needs --tracker)");
   clear->add_option(
       "--control-socket", options.controlSocket,
       "The agent's control socket, instead of ipfix-agent.<table>.sock in the "
       "runtime directory ($RUNTIME_DIRECTORY, $XDG_RUNTIME_DIR or /run/ipfix-agent)");
   CLI::App* serve = app.add_subcommand(
       "serve",
       "Serve the table to a monitoring system: GET /metrics over HTTP answers with it in the "
       "OpenMetrics format, read anew at every scrape, until interrupted");
   serve
       ->add_option("--listen", options.listen,
                    "Address and TCP port to listen on: ADDR:PORT, [IPv6-ADDR]:PORT; port 0 "
                    "takes a free one")
       ->required();
   app.footer(
       "Exit status: 0 success, 1 system error (clear: the agent did not answer), 2 bad usage, "
       "table name or runtime directory, 3 no such table, 4 table of another layout or version, "
       "5 corrupt table, 6 clear: no agent running for the table, 7 clear: the agent refused the "
       "request (a tracker or exporter it does not have, or a user it does not serve), 8 serve: "
       "cannot listen on the address.");
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& e) {
      return app.exit(e) == 0 ? IpfixStats::exitOk : IpfixStats::exitUsage;
   }
   if (json && format->count() > 0) {
      std::cerr << "ipfix-stats: --json and --format do not go together\n";
      return IpfixStats::exitUsage;
   }
   if (json) {
      options.format = "json";
   }
   for (const CLI::App* command : {clear, serve}) {
      if (command->parsed() && jsonFlag->count() + format->count() + watch->count() > 0) {
         std::cerr << "ipfix-stats: --json, --format and --watch do not go with "
                   << command->get_name() << '\n';
         return IpfixStats::exitUsage;
      }
   }
   if (clear->parsed()) {
      for (const CLI::Option* o : {tracker, exporter}) {
         if (o->count() > 0 && o->as<std::string>().empty()) {
            std::cerr << "ipfix-stats: " << o->get_name() << " must not be empty\n";
            return IpfixStats::exitUsage;
         }
      }
      return IpfixStats::clearCounters(
          options.table, options.clear,
          Control::SocketPlacement::fromEnvironment(options.controlSocket));
   }
   try {
      return serve->parsed() ? serveTable(options) : run(options);
   } catch (const Vorpa::MountError& e) {
      std::cerr << "ipfix-stats: " << e.what() << '\n';
      return IpfixStats::exitCodeFor(e.problem());
   } catch (const IpfixStats::CorruptTable& e) {
      std::cerr << "ipfix-stats: " << e.what() << '\n';
      return IpfixStats::exitCorrupt;
   } catch (const std::exception& e) {
      std::cerr << "ipfix-stats: " << e.what() << '\n';
      return IpfixStats::exitFailure;
   }
}
