#pragma once

#include <fmt/format.h>

#include <map>

#include "Ipfix/Ipfix.h"
#include "Kel/Entity.h"
#include "Nivel/UdpPam.h"

// The types the whole library shares: the kind of flow tracking, a tracker's
// id, and the status records of the tracking tree (per type, tracker, exporter
// and collector), which the tracking machines keep and the senders read.
namespace FlowTracking {

// The kind of flow tracking. Only 2 is hardware tracking; every other value,
// out-of-range ones included, counts as sampled.
enum class FlowTrackingType : Kel::U8 {
   sampled = 1,
   hardware = 2,
};

// "Hardware" for hardware tracking, "Sampled" for any other value.
Kel::String trackingTypeString(FlowTrackingType type);

// A flow tracker's numeric id: the observation domain of its messages.
using FtId = Kel::U32;

// One collector of an exporter: the sequence number every sender of that
// exporter shares, and whether it has the options templates.
class CollectorInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<CollectorInfo> {
    public:
      virtual void onIpfixMsgSeqNo() {}
      virtual void onOptTemplateSent() {}
   };

   explicit CollectorInfo(Kel::String name) : name_(std::move(name)) {}
   const Kel::String& name() const { return name_; }

   Ipfix::IpfixMsgSeqNo ipfixMsgSeqNo() const { return ipfixMsgSeqNo_; }
   void ipfixMsgSeqNoIs(Ipfix::IpfixMsgSeqNo v) {
      attributeIs(ipfixMsgSeqNo_, v, &Notifiee::onIpfixMsgSeqNo);
   }
   // Advances the sequence number by `n` (modulo 2^32) and returns it.
   Ipfix::IpfixMsgSeqNo ipfixMsgSeqNoInc(Kel::U32 n) {
      ipfixMsgSeqNoIs(ipfixMsgSeqNo_ + Ipfix::IpfixMsgSeqNo(n));
      return ipfixMsgSeqNo_;
   }
   bool optTemplateSent() const { return optTemplateSent_; }
   void optTemplateSentIs(bool v) {
      attributeIs(optTemplateSent_, v, &Notifiee::onOptTemplateSent);
   }

 private:
   Kel::String name_;
   Ipfix::IpfixMsgSeqNo ipfixMsgSeqNo_;
   bool optTemplateSent_ = false;
};

// One exporter of a tracker: its sockets, their local ports once known, and
// its collectors.
class ExporterInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<ExporterInfo> {
    public:
      virtual void onUdpPam4() {}
      virtual void onUdpPam6() {}
      virtual void onRxPort4() {}
      virtual void onRxPort6() {}
      virtual void onCollInfo(const Kel::String&) {}
   };

   explicit ExporterInfo(Kel::Name name) : name_(std::move(name)) {}
   const Kel::Name& name() const { return name_; }

   const Kel::Ptr<Nivel::UdpPam>& udpPam4() const { return udpPam4_; }
   void udpPam4Is(const Kel::Ptr<Nivel::UdpPam>& v) {
      attributeIs(udpPam4_, v, &Notifiee::onUdpPam4);
   }
   const Kel::Ptr<Nivel::UdpPam>& udpPam6() const { return udpPam6_; }
   void udpPam6Is(const Kel::Ptr<Nivel::UdpPam>& v) {
      attributeIs(udpPam6_, v, &Notifiee::onUdpPam6);
   }
   // Local port of each socket; 0 until a template has been sent through it.
   Nivel::Port rxPort4() const { return rxPort4_; }
   void rxPort4Is(Nivel::Port v) { attributeIs(rxPort4_, v, &Notifiee::onRxPort4); }
   Nivel::Port rxPort6() const { return rxPort6_; }
   void rxPort6Is(Nivel::Port v) { attributeIs(rxPort6_, v, &Notifiee::onRxPort6); }

   const std::map<Kel::String, Kel::Ptr<CollectorInfo>>& collInfo() const { return collInfo_; }
   Kel::Ptr<CollectorInfo> collInfo(const Kel::String& name) const {
      return Kel::findEntry(collInfo_, name);
   }
   // The collector's record, created with sequence number 0 when absent.
   Kel::Ptr<CollectorInfo> collInfoIs(const Kel::String& name) {
      return entryFindOrCreate(
          collInfo_, name, [&] { return Kel::makeActive<CollectorInfo>(name); },
          &Notifiee::onCollInfo);
   }
   void collInfoDel(const Kel::String& name) { entryDel(collInfo_, name, &Notifiee::onCollInfo); }
   void collInfoDelAll() { entryDelAll(collInfo_, &Notifiee::onCollInfo); }

 private:
   Kel::Name name_;
   Kel::Ptr<Nivel::UdpPam> udpPam4_;
   Kel::Ptr<Nivel::UdpPam> udpPam6_;
   Nivel::Port rxPort4_ = 0;
   Nivel::Port rxPort6_ = 0;
   std::map<Kel::String, Kel::Ptr<CollectorInfo>> collInfo_;
};

class FlowTrackerInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FlowTrackerInfo> {
    public:
      virtual void onExpInfo(const Kel::Name&) {}
   };

   explicit FlowTrackerInfo(Kel::Name name) : name_(std::move(name)) {}
   const Kel::Name& name() const { return name_; }

   const std::map<Kel::Name, Kel::Ptr<ExporterInfo>>& expInfo() const { return expInfo_; }
   Kel::Ptr<ExporterInfo> expInfo(const Kel::Name& name) const {
      return Kel::findEntry(expInfo_, name);
   }
   Kel::Ptr<ExporterInfo> expInfoIs(const Kel::Name& name) {
      return entryFindOrCreate(
          expInfo_, name, [&] { return Kel::makeActive<ExporterInfo>(name); },
          &Notifiee::onExpInfo);
   }
   void expInfoDel(const Kel::Name& name) { entryDel(expInfo_, name, &Notifiee::onExpInfo); }
   void expInfoDelAll() { entryDelAll(expInfo_, &Notifiee::onExpInfo); }

 private:
   Kel::Name name_;
   std::map<Kel::Name, Kel::Ptr<ExporterInfo>> expInfo_;
};

class FlowTrackingInfo : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FlowTrackingInfo> {
    public:
      virtual void onFtInfo(const Kel::Name&) {}
   };

   explicit FlowTrackingInfo(FlowTrackingType type) : flowTrackingType_(type) {}
   FlowTrackingType flowTrackingType() const { return flowTrackingType_; }

   const std::map<Kel::Name, Kel::Ptr<FlowTrackerInfo>>& ftInfo() const { return ftInfo_; }
   Kel::Ptr<FlowTrackerInfo> ftInfo(const Kel::Name& name) const {
      return Kel::findEntry(ftInfo_, name);
   }
   Kel::Ptr<FlowTrackerInfo> ftInfoIs(const Kel::Name& name) {
      return entryFindOrCreate(
          ftInfo_, name, [&] { return Kel::makeActive<FlowTrackerInfo>(name); },
          &Notifiee::onFtInfo);
   }
   void ftInfoDel(const Kel::Name& name) { entryDel(ftInfo_, name, &Notifiee::onFtInfo); }
   void ftInfoDelAll() { entryDelAll(ftInfo_, &Notifiee::onFtInfo); }

 private:
   FlowTrackingType flowTrackingType_;
   std::map<Kel::Name, Kel::Ptr<FlowTrackerInfo>> ftInfo_;
};

}  // namespace FlowTracking

template <>
struct fmt::formatter<FlowTracking::FlowTrackingType> : fmt::formatter<unsigned> {
   auto format(FlowTracking::FlowTrackingType t, fmt::format_context& ctx) const {
      return fmt::formatter<unsigned>::format(static_cast<unsigned>(t), ctx);
   }
};
