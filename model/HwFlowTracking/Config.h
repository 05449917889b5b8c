#pragma once

#include <map>

#include "Kel/Entity.h"
#include "Nivel/Addr.h"

// The hardware flow-tracking configuration: per flow-tracking type, named
// trackers, each with named exporters. Another agent writes it; the export
// library reads it and writes back the exporter's ports and readiness.
namespace HwFlowTracking {

// One exporter of a tracker: where its collectors are and how to send to them.
class ExporterConfig : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<ExporterConfig> {
    public:
      virtual void onCollectorIpAndPort(const Kel::String&) {}
      virtual void onCollectorIp6AndPort(const Kel::String&) {}
      virtual void onSrcIpAddr() {}
      virtual void onSrcIp6Addr() {}
      virtual void onDscp() {}
      virtual void onIpfixMtu() {}
      virtual void onTemplateInterval() {}
      virtual void onVrfName() {}
      virtual void onExporterResolved() {}
      virtual void onRxPort4() {}
      virtual void onRxPort6() {}
      virtual void onExporter4Ready() {}
      virtual void onExporter6Ready() {}
   };

   explicit ExporterConfig(Kel::Name name) : name_(std::move(name)) {}
   const Kel::Name& name() const { return name_; }

   // Collectors by name; a name may have an IPv4 entry, an IPv6 entry or both.
   const std::map<Kel::String, Nivel::IpAndPort>& collectorIpAndPort() const {
      return collectorIpAndPort_;
   }
   void collectorIpAndPortIs(const Kel::String& name, const Nivel::IpAndPort& v) {
      entryIs(collectorIpAndPort_, name, v, &Notifiee::onCollectorIpAndPort);
   }
   void collectorIpAndPortDel(const Kel::String& name) {
      entryDel(collectorIpAndPort_, name, &Notifiee::onCollectorIpAndPort);
   }
   const std::map<Kel::String, Nivel::Ip6AndPort>& collectorIp6AndPort() const {
      return collectorIp6AndPort_;
   }
   void collectorIp6AndPortIs(const Kel::String& name, const Nivel::Ip6AndPort& v) {
      entryIs(collectorIp6AndPort_, name, v, &Notifiee::onCollectorIp6AndPort);
   }
   void collectorIp6AndPortDel(const Kel::String& name) {
      entryDel(collectorIp6AndPort_, name, &Notifiee::onCollectorIp6AndPort);
   }

   Nivel::IpAddr srcIpAddr() const { return srcIpAddr_; }
   void srcIpAddrIs(Nivel::IpAddr v) { attributeIs(srcIpAddr_, v, &Notifiee::onSrcIpAddr); }
   const Nivel::Ip6Addr& srcIp6Addr() const { return srcIp6Addr_; }
   void srcIp6AddrIs(const Nivel::Ip6Addr& v) {
      attributeIs(srcIp6Addr_, v, &Notifiee::onSrcIp6Addr);
   }
   // The whole ToS / traffic-class byte written on every packet.
   Nivel::DscpValue dscp() const { return dscp_; }
   void dscpIs(Nivel::DscpValue v) { attributeIs(dscp_, v, &Notifiee::onDscp); }
   // Largest IPFIX message, in octets.
   Kel::U32 ipfixMtu() const { return ipfixMtu_; }
   void ipfixMtuIs(Kel::U32 v) { attributeIs(ipfixMtu_, v, &Notifiee::onIpfixMtu); }
   // Template resend period, in milliseconds.
   Kel::U32 templateInterval() const { return templateInterval_; }
   void templateIntervalIs(Kel::U32 v) {
      attributeIs(templateInterval_, v, &Notifiee::onTemplateInterval);
   }
   const Kel::Name& vrfName() const { return vrfName_; }
   void vrfNameIs(const Kel::Name& v) { attributeIs(vrfName_, v, &Notifiee::onVrfName); }
   // The exporter's local interface and addresses are resolved.
   bool exporterResolved() const { return exporterResolved_; }
   void exporterResolvedIs(bool v) {
      attributeIs(exporterResolved_, v, &Notifiee::onExporterResolved);
   }

   // Written back by the export library.
   Nivel::Port rxPort4() const { return rxPort4_; }
   void rxPort4Is(Nivel::Port v) { attributeIs(rxPort4_, v, &Notifiee::onRxPort4); }
   Nivel::Port rxPort6() const { return rxPort6_; }
   void rxPort6Is(Nivel::Port v) { attributeIs(rxPort6_, v, &Notifiee::onRxPort6); }
   bool exporter4Ready() const { return exporter4Ready_; }
   void exporter4ReadyIs(bool v) { attributeIs(exporter4Ready_, v, &Notifiee::onExporter4Ready); }
   bool exporter6Ready() const { return exporter6Ready_; }
   void exporter6ReadyIs(bool v) { attributeIs(exporter6Ready_, v, &Notifiee::onExporter6Ready); }

 private:
   Kel::Name name_;
   std::map<Kel::String, Nivel::IpAndPort> collectorIpAndPort_;
   std::map<Kel::String, Nivel::Ip6AndPort> collectorIp6AndPort_;
   Nivel::IpAddr srcIpAddr_;
   Nivel::Ip6Addr srcIp6Addr_;
   Nivel::DscpValue dscp_ = 0;
   Kel::U32 ipfixMtu_ = 1500;
   Kel::U32 templateInterval_ = 3600000;
   Kel::Name vrfName_ = "default";
   bool exporterResolved_ = false;
   Nivel::Port rxPort4_ = 0;
   Nivel::Port rxPort6_ = 0;
   bool exporter4Ready_ = false;
   bool exporter6Ready_ = false;
};

// One flow tracker: its observation domain and timers, and its exporters.
class FtConfig : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FtConfig> {
    public:
      virtual void onFtId() {}
      virtual void onActiveInterval() {}
      virtual void onInactiveTimeout() {}
      virtual void onExpConfig(const Kel::Name&) {}
   };

   explicit FtConfig(Kel::Name name) : name_(std::move(name)) {}
   const Kel::Name& name() const { return name_; }

   // The tracker's numeric id: the observation domain of its messages.
   Kel::U32 ftId() const { return ftId_; }
   void ftIdIs(Kel::U32 v) { attributeIs(ftId_, v, &Notifiee::onFtId); }
   // Milliseconds.
   Kel::U32 activeInterval() const { return activeInterval_; }
   void activeIntervalIs(Kel::U32 v) {
      attributeIs(activeInterval_, v, &Notifiee::onActiveInterval);
   }
   // Milliseconds.
   Kel::U32 inactiveTimeout() const { return inactiveTimeout_; }
   void inactiveTimeoutIs(Kel::U32 v) {
      attributeIs(inactiveTimeout_, v, &Notifiee::onInactiveTimeout);
   }

   const std::map<Kel::Name, Kel::Ptr<ExporterConfig>>& expConfig() const { return expConfig_; }
   Kel::Ptr<ExporterConfig> expConfig(const Kel::Name& name) const {
      return Kel::findEntry(expConfig_, name);
   }
   // Stores `exporter` under its name, replacing another object of that name.
   void expConfigIs(const Kel::Ptr<ExporterConfig>& exporter) {
      entryIs(expConfig_, exporter->name(), exporter, &Notifiee::onExpConfig);
   }
   void expConfigDel(const Kel::Name& name) { entryDel(expConfig_, name, &Notifiee::onExpConfig); }

 private:
   Kel::Name name_;
   Kel::U32 ftId_ = 0;
   Kel::U32 activeInterval_ = 300000;
   Kel::U32 inactiveTimeout_ = 15000;
   std::map<Kel::Name, Kel::Ptr<ExporterConfig>> expConfig_;
};

// All trackers of one flow-tracking type.
class Config : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<Config> {
    public:
      virtual void onHwFtConfig(const Kel::Name&) {}
   };

   const std::map<Kel::Name, Kel::Ptr<FtConfig>>& hwFtConfig() const { return hwFtConfig_; }
   Kel::Ptr<FtConfig> hwFtConfig(const Kel::Name& name) const {
      return Kel::findEntry(hwFtConfig_, name);
   }
   void hwFtConfigIs(const Kel::Ptr<FtConfig>& tracker) {
      entryIs(hwFtConfig_, tracker->name(), tracker, &Notifiee::onHwFtConfig);
   }
   void hwFtConfigDel(const Kel::Name& name) {
      entryDel(hwFtConfig_, name, &Notifiee::onHwFtConfig);
   }

 private:
   std::map<Kel::Name, Kel::Ptr<FtConfig>> hwFtConfig_;
};

}  // namespace HwFlowTracking
