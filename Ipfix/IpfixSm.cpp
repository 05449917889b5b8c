#include "Ipfix/IpfixSm.h"

#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "Kel/Trace.h"
#include "Kel/TypeRegistry.h"

namespace Ipfix {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

// The per-type entry points, for an agent that creates the library by name.
void registerEntryFactories() {
   auto& registry = Kel::TypeRegistry::instance();
   registry.factoryIs<decltype(FlowTracking::flowTrackingInfoSmFactory)>(
       "FlowTrackingInfoSm", FlowTracking::flowTrackingInfoSmFactory);
   registry.factoryIs<decltype(FlowTracking::templateSmFactory)>("TemplateSm",
                                                                 FlowTracking::templateSmFactory);
   registry.factoryIs<decltype(FlowTracking::optionsDataManagerSmFactory)>(
       "OptionsDataManagerSm", FlowTracking::optionsDataManagerSmFactory);
}

}  // namespace

IpfixInitSm::IpfixInitSm() {
   handleInitialized();
}

void IpfixInitSm::handleInitialized() {
   KEL_TRACE(traceIpfix, 4, "IpfixInitSm::handleInitialized");
   elementIdCollection_ = Kel::makeActive<ElementIdColl>();
   elementIdCollection_->doInitialize();
   agentInfo_ = Kel::makeActive<AgentInfo>();
   registerEntryFactories();
   attributeIs(initialized_, true, &Notifiee::onInitialized);
}

Kel::Ptr<IpfixInitSm> ipfixInitSmFactory() {
   return Kel::makeActive<IpfixInitSm>();
}

}  // namespace Ipfix
