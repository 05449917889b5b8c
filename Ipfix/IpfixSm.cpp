#include "Ipfix/IpfixSm.h"

#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "Kel/Trace.h"
#include "Kel/TypeRegistry.h"

namespace Ipfix {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

// The library's entry points, for an agent that creates the library by name:
// registered when the library is loaded, before anything is created.
[[maybe_unused]] const bool entryFactoriesRegistered = [] {
   auto& registry = Kel::TypeRegistry::instance();
   registry.factoryIs<decltype(ipfixInitSmFactory)>("IpfixInitSm", ipfixInitSmFactory);
   registry.factoryIs<decltype(FlowTracking::flowTrackingInfoSmFactory)>(
       "FlowTrackingInfoSm", FlowTracking::flowTrackingInfoSmFactory);
   registry.factoryIs<decltype(FlowTracking::templateSmFactory)>("TemplateSm",
                                                                 FlowTracking::templateSmFactory);
   registry.factoryIs<decltype(FlowTracking::optionsDataManagerSmFactory)>(
       "OptionsDataManagerSm", FlowTracking::optionsDataManagerSmFactory);
   return true;
}();

}  // namespace

IpfixInitSm::IpfixInitSm() {
   handleInitialized();
}

void IpfixInitSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "IpfixInitSm::handleInitialized");
   elementIdCollection_ = Kel::makeActive<ElementIdColl>();
   elementIdCollection_->doInitialize();
   agentInfo_ = Kel::makeActive<AgentInfo>();
   attributeIs(initialized_, true, &Notifiee::onInitialized);
}

Kel::Ptr<IpfixInitSm> ipfixInitSmFactory() {
   return Kel::makeActive<IpfixInitSm>();
}

}  // namespace Ipfix
