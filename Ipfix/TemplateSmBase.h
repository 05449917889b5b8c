#pragma once

#include <map>
#include <memory>
#include <string_view>

#include "Bexa/TaskScheduler.h"
#include "HwFlowTracking/Config.h"
#include "HwFlowTracking/Status.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Nivel/Pkt.h"

namespace FlowTracking {

using HwFlowTracking::TemplateId;

// What the data-template and the options-template exporters of one (tracker,
// exporter) have in common: the derived class writes the body of one template
// set into a packet from getPkt(); this base puts the message and set headers
// around it and sends it to every IPv4 and IPv6 collector of the exporter,
// when the template changes, at once to a collector that is added, and every
// templateInterval, with statistics and the exporter's local ports recorded.
//
// Teardown: whoever removes an exporter calls handleDel() before dropping it,
// so that its collectors' statistics go with the exporter, not whenever its
// last reference happens to go. Destroying one without handleDel() is a bug,
// and the destructor ends the process on it rather than leave stale entries.
class TemplateExporterSmBase : public Kel::PtrInterface {
 public:
   ~TemplateExporterSmBase() override;

   const Kel::Name& ftName() const { return ftName_; }
   const Kel::Name& expName() const { return expName_; }
   FtId ftId() const { return ftId_; }
   const Kel::Ptr<const HwFlowTracking::ExporterConfig>& hwExpConfig() const {
      return hwExpConfig_;
   }
   const Kel::Ptr<ExporterInfo>& expInfo() const { return expInfo_; }
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics>& collStats() const { return collStats_; }
   const Kel::Ptr<Bexa::TaskScheduler>& scheduler() const { return scheduler_; }

   // The collectors currently served.
   const std::map<Kel::String, Nivel::IpAndPort>& collectorIpAndPort() const {
      return collectorIpAndPort_;
   }
   const std::map<Kel::String, Nivel::Ip6AndPort>& collectorIp6AndPort() const {
      return collectorIp6AndPort_;
   }

   // The finished template message, while templateReady.
   const Kel::Ptr<Nivel::Pkt>& templatePkt() const { return templatePkt_; }
   Kel::U16 templatePktMsgLen() const { return templatePktMsgLen_; }
   Kel::U16 templatePktTemplateCount() const { return templatePktTemplateCount_; }
   bool templateReady() const { return templateReady_; }
   const Bexa::Task* periodicTemplateTxTask() const { return periodicTemplateTxTask_.get(); }

   // What the derived class is: the prefix of its tasks' names and the set id
   // of its template set.
   virtual Kel::String taskPrefix() const = 0;
   virtual Kel::U16 headerSetId() const = 0;
   // Called after each send to `collector`.
   virtual void updateCollectorOnTx(const Kel::String& collector);

   void handleCollectorIpAndPort(const Kel::String& collector);
   void handleCollectorIp6AndPort(const Kel::String& collector);
   void handleTemplateInterval();
   void handlePeriodicTemplateTx();
   // Removes the statistics of every collector served and the exporter's
   // clear time; run before deletion (see above).
   void handleDel();

 protected:
   TemplateExporterSmBase(Kel::Name ftName, Kel::Name expName, FtId ftId,
                          Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig,
                          Kel::Ptr<ExporterInfo> expInfo,
                          Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats,
                          Kel::Ptr<Bexa::TaskScheduler> scheduler);

   // First thing of the derived class's start-up, once it is fully built.
   void handleStartup();
   // The level-4 trace of a handler's entry: `className`::`handler` for the
   // tracker for the exporter.
   void traceEntry(std::string_view className, std::string_view handler) const;
   // A task named after the derived class, the tracker and the exporter.
   std::unique_ptr<Bexa::Task> newTask(const Kel::String& role, Bexa::Task::Action action) const;

   // A packet with room for the headers in front and `bodyLen` zeroed octets
   // of set body, which the derived class fills.
   Kel::Ptr<Nivel::Pkt> getPkt(Kel::U32 bodyLen) const;
   // Takes the body built in `pkt`, writes the headers and sends it.
   void finishMessage(const Kel::Ptr<Nivel::Pkt>& pkt, Kel::U16 templateCount);
   // No message to send: stops the periodic resend.
   void templateReadyIs(bool ready);

 private:
   class HwExpConfigReactor;
   class ExpInfoReactor;

   void addIpfixHeaders_();
   void updateMsgHeader_(const Kel::String& collector);
   void maybeTxTemplate_();
   void maybeTxTemplate4_();
   void maybeTxTemplate6_();
   void doTxTemplate4_(const Nivel::IpAndPort& dst, const Kel::String& collector);
   void doTxTemplate6_(const Nivel::Ip6AndPort& dst, const Kel::String& collector);
   // After a send round of one family: keeps the periodic resend going while
   // this family sends, and stops it once neither does.
   void afterFamilyRound_(bool sending, bool otherSending);
   void schedulePeriodicTemplateTx_();
   void stopPeriodicTemplateTx_();
   void updateStats(const Vorpa::Ipfix::CollectorInfo& collector);
   void statsDel(const Vorpa::Ipfix::CollectorInfo& collector);

   const Kel::Name ftName_;
   const Kel::Name expName_;
   const FtId ftId_;
   const Kel::Ptr<const HwFlowTracking::ExporterConfig> hwExpConfig_;
   const Kel::Ptr<ExporterInfo> expInfo_;
   const Kel::Ptr<Vorpa::Ipfix::CollectorStatistics> collStats_;
   const Kel::Ptr<Bexa::TaskScheduler> scheduler_;

   std::map<Kel::String, Nivel::IpAndPort> collectorIpAndPort_;
   std::map<Kel::String, Nivel::Ip6AndPort> collectorIp6AndPort_;
   Kel::Ptr<Nivel::Pkt> templatePkt_;
   Kel::U16 templatePktMsgLen_ = 0;
   Kel::U16 templatePktTemplateCount_ = 0;
   bool templateReady_ = false;
   // The last round of a family reached at least one collector. A collector
   // added while its family sends gets the message alone; one added while it
   // does not starts a whole round. The periodic task lives while either is
   // true.
   bool sending4_ = false;
   bool sending6_ = false;
   bool deleted_ = false;
   std::unique_ptr<Bexa::Task> periodicTemplateTxTask_;
   std::unique_ptr<HwExpConfigReactor> hwExpConfigReactor_;
   std::unique_ptr<ExpInfoReactor> expInfoReactor_;
};

}  // namespace FlowTracking
