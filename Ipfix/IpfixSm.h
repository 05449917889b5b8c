#pragma once

#include "Ipfix/Ipfix.h"

namespace Ipfix {

// The library's entry object. Building it fills the information-element
// catalogue and creates the agent context; the agent keeps it for its life
// and hands both to the state machines it creates afterwards.
class IpfixInitSm : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<IpfixInitSm> {
    public:
      virtual void onInitialized() {}
   };

   IpfixInitSm();

   const Kel::Ptr<ElementIdColl>& elementIdCollection() const { return elementIdCollection_; }
   const Kel::Ptr<AgentInfo>& agentInfo() const { return agentInfo_; }
   bool initialized() const { return initialized_; }

 private:
   void handleInitialized();

   Kel::Ptr<ElementIdColl> elementIdCollection_;
   Kel::Ptr<AgentInfo> agentInfo_;
   bool initialized_ = false;
};

// Called once by the agent before it creates any other state machine. This and
// the per-type factories are also in Kel::TypeRegistry from the moment the
// library is loaded: "IpfixInitSm", "FlowTrackingInfoSm", "TemplateSm" and
// "OptionsDataManagerSm".
Kel::Ptr<IpfixInitSm> ipfixInitSmFactory();

}  // namespace Ipfix
