// The agent's configuration loader on arbitrary text. A file either loads, and
// then the model writer and the library's tracking tree take it without an
// exception, or it yields errors that each locate the problem. Anything else
// (an assertion, another exception, a crash, a sanitizer report) is a finding.
//
// A loaded file is applied as a reload of examples/demo.yaml, then everything
// is removed, so the diff's changes, additions and removals all run over what
// the loader let through.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <map>
#include <sstream>

#include "Bexa/TaskScheduler.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/IpfixSm.h"
#include "Kel/Exception.h"
#include "Kel/System.h"
#include "agent/ConfigLoader.h"
#include "agent/ModelWriter.h"

namespace {

constexpr const char* fileName = "fuzz.yaml";

[[noreturn]] void finding(const char* what, const Kel::String& detail) {
   std::fprintf(stderr, "config_loader: %s: %s\n", what, detail.c_str());
   std::abort();
}

// The VRFs the writer announced, to check that removing the whole
// configuration removes them all.
class VrfMap : public Agent::VrfSink {
 public:
   void vrfIs(Kel::U32 id, const Kel::Name& name) override { vrfs[id] = name; }
   void vrfDel(Kel::U32 id) override {
      if (vrfs.erase(id) == 0) {
         finding("VRF removed that was never added", std::to_string(id));
      }
   }
   std::map<Kel::U32, Kel::Name> vrfs;
};

const Ipfix::IpfixInitSm& library() {
   static const Kel::Ptr<Ipfix::IpfixInitSm> init = Ipfix::ipfixInitSmFactory();
   return *init;
}

const Agent::AgentConfig& demo() {
   static const Agent::AgentConfig config = [] {
      std::ifstream in(IPFIX_EXAMPLES_DIR "/demo.yaml");
      std::ostringstream text;
      text << in.rdbuf();
      auto result = Agent::parse(text.str(), "demo.yaml");
      if (!result.config) {
         finding("examples/demo.yaml does not load",
                 result.errors.empty() ? "" : result.errors.front().str());
      }
      return *result.config;
   }();
   return config;
}

void checkErrors(const Agent::LoadResult& result) {
   if (result.config.has_value() != result.errors.empty()) {
      finding("a result with both a configuration and errors, or neither", "");
   }
   for (const Agent::ConfigError& e : result.errors) {
      if (e.fileName != fileName || e.line < 1 || e.message.empty()) {
         finding("an error that does not locate its problem", e.str());
      }
   }
}

// Writes `config` as a reload of the demo configuration, with the library's
// tracking tree of both types following, then removes everything.
void apply(const Agent::AgentConfig& config) {
   const auto scheduler = Kel::makePtr<Bexa::TaskSchedulerRoot>();
   const auto interfaces = Kel::makeActive<FlowTracking::IntfIndexMap>();
   VrfMap vrfs;
   Agent::ModelWriter writer(library().elementIdCollection(), interfaces, vrfs);
   std::vector<Kel::Ptr<FlowTracking::FlowTrackingInfo>> infos;
   std::vector<Kel::Ptr<FlowTracking::FlowTrackingInfoSm>> machines;
   for (const auto type : Agent::trackingTypes) {
      infos.push_back(Kel::makeActive<FlowTracking::FlowTrackingInfo>(type));
      machines.push_back(FlowTracking::flowTrackingInfoSmFactory(
          scheduler, writer.model(type).config, infos.back(), library().agentInfo()));
   }
   const Agent::AgentConfig empty;
   for (const Agent::AgentConfig* next : {&demo(), &config, &empty}) {
      writer.configIs(*next);
      scheduler->runFor(0);
      if (!(writer.config() == *next)) {
         finding("the writer did not take the configuration", "");
      }
   }
   for (const auto& info : infos) {
      if (!info->ftInfo().empty()) {
         finding("trackers left after removing everything", info->ftInfo().begin()->first);
      }
   }
   if (!interfaces->intfIndex().empty() || !interfaces->intfId().empty() || !vrfs.vrfs.empty()) {
      finding("interfaces or VRFs left after removing everything", "");
   }
   if (scheduler->taskExceptions() != 0) {
      finding("a task of the library threw", std::to_string(scheduler->taskExceptions()));
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   static Kel::ScopedManualClock clock;
   const Kel::String text(reinterpret_cast<const char*>(data), size);
   try {
      const Agent::LoadResult result = Agent::parse(text, fileName);
      checkErrors(result);
      if (result.config) {
         apply(*result.config);
      }
   } catch (const Kel::AssertionError& e) {
      finding("assertion", e.what());
   } catch (const std::exception& e) {
      finding("exception", e.what());
   }
   return 0;
}
