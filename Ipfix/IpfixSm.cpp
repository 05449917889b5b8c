#include "Ipfix/IpfixSm.h"

#include "Kel/Trace.h"

namespace Ipfix {

namespace {
Kel::TraceHandle traceIpfix("Ipfix");
}

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
