#pragma once

#include "Ipfix/CollectorStatsUpdate.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/OptionsDataExporter.h"

namespace FlowTracking {

class OptionsDataExporterSm;

// One collector that has its options templates and so may be sent options
// data; it numbers the records it is sent on its own. Send loops hold it by a
// counted pointer: a change of configuration made while they send (a removal,
// a new address) retires it, and they skip it from then on.
class Collector : public Kel::PtrInterface {
 public:
   Collector(Kel::Ptr<CollectorInfo> info, const Nivel::IpAndPort& dst4);
   Collector(Kel::Ptr<CollectorInfo> info, const Nivel::Ip6AndPort& dst6);

   const Kel::Ptr<CollectorInfo>& info() const { return info_; }
   bool isIpv4() const { return isIpv4_; }
   const Nivel::IpAndPort& dst4() const { return dst4_; }
   const Nivel::Ip6AndPort& dst6() const { return dst6_; }
   bool hasDestination(const Nivel::IpAndPort& d) const { return isIpv4_ && dst4_ == d; }
   bool hasDestination(const Nivel::Ip6AndPort& d) const { return !isIpv4_ && dst6_ == d; }
   Vorpa::Ipfix::CollectorInfo statsCollector() const;
   // False once the exporter dropped or replaced it.
   bool active() const { return active_; }
   void retire() { active_ = false; }

   // Stamps this collector's sequence number and the tracker's observation
   // domain, advances the sequence number by the records of the message,
   // sends it and adds it to the messages not yet counted.
   void sendMessage(const OptionsDataExporterSm& exporter, const MessageWrapper& msgWrap) const;
   // Counts the messages sent since the last call in the statistics table.
   void updateStats(const OptionsDataExporterSm& exporter) const;

 private:
   Kel::Ptr<CollectorInfo> info_;
   bool isIpv4_;
   Nivel::IpAndPort dst4_;
   Nivel::Ip6AndPort dst6_;
   mutable Vorpa::Ipfix::OptionsDataTally tally_;
   bool active_ = true;
};

}  // namespace FlowTracking
