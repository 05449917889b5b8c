#pragma once

#include <map>
#include <memory>
#include <optional>

#include "Bexa/TaskScheduler.h"
#include "ConfigLoader.h"
#include "ControlChannel.h"
#include "FlowTracking/ConfigReq.h"
#include "FlowTracking/IntfIndexMap.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "ModelWriter.h"
#include "ServiceNotifier.h"
#include "VrfIdMapWriter.h"

namespace Agent {

// The stand-alone agent: the model written from the configuration file, the
// library built over it in its start order, and the event loop that runs it.
// SIGHUP re-reads the file and applies the difference; SIGTERM and SIGINT
// take everything down in order and end the loop. Operators' requests (a
// counter clear) arrive on the control socket of the statistics table. A
// service manager hears of each step (see ServiceNotifier).
class AgentRuntime {
 public:
   struct Options {
      Kel::String configPath;
      // Overrides the file's statistics table name.
      std::optional<Kel::Name> statisticsTable;
      // The control socket's path, instead of one in the runtime directory.
      std::optional<Kel::String> controlSocket;
   };

   explicit AgentRuntime(Options options);
   ~AgentRuntime();
   AgentRuntime(const AgentRuntime&) = delete;
   AgentRuntime& operator=(const AgentRuntime&) = delete;

   // Loads and applies the file, opens the control socket and builds the
   // library. On a bad file prints every error and returns false, having
   // built nothing. Throws Kel::Exception when the control socket belongs to
   // another running agent or cannot be made (see ControlChannel), before
   // the statistics table is touched.
   bool start();
   // Runs the loop until a stop signal, then tears down. Returns the exit code.
   int run();

   const Kel::Ptr<Bexa::TaskSchedulerRoot>& scheduler() const { return scheduler_; }

 private:
   // The library of one flow-tracking type, in creation order; members go in
   // reverse, the options data first.
   struct TypeLibrary {
      Kel::Ptr<FlowTracking::FlowTrackingInfo> info;
      Kel::Ptr<FlowTracking::FlowTrackingInfoSm> tracking;
      Kel::Ptr<FlowTracking::TemplateSm> templates;
      Kel::Ptr<FlowTracking::OptionsDataManagerSm> optionsData;
   };

   std::optional<AgentConfig> loadConfig() const;
   void librariesIs(const AgentConfig& config);
   void controlChannelIs(const Kel::Name& statisticsTable);
   void handleSignal();
   void reload();
   // Applies the file as a reload; false when it is refused, which leaves
   // everything as it was.
   bool reloadApplied();
   void shutdown();

   Options options_;
   Kel::Ptr<Bexa::TaskSchedulerRoot> scheduler_ = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   ServiceNotifier notifier_{scheduler_};
   Kel::Ptr<Ipfix::IpfixInitSm> init_;
   Kel::Ptr<FlowTracking::IntfIndexMap> interfaces_ = Kel::makeActive<FlowTracking::IntfIndexMap>();
   Kel::Ptr<FlowTracking::ConfigReq> configReq_ = Kel::makeActive<FlowTracking::ConfigReq>();
   Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> stats_;
   VrfIdMapWriter vrfs_;
   std::unique_ptr<ModelWriter> writer_;
   std::map<FlowTracking::FlowTrackingType, TypeLibrary> libraries_;
   int signalFd_ = -1;
   std::unique_ptr<Bexa::Task> signalTask_;
   Bexa::FdWatch signalWatch_;
   // Last, so that it goes first: its requests use everything above.
   std::unique_ptr<ControlChannel> control_;
};

}  // namespace Agent
