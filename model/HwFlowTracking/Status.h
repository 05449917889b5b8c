#pragma once

#include <map>
#include <memory>

#include "HwFlowTracking/RecordType.h"
#include "Kel/Entity.h"

// The hardware flow-tracking status: what the hardware reports per tracker,
// above all the record layout of each flow group, which the export library
// turns into IPFIX templates.
namespace HwFlowTracking {

// An IPFIX template id: 2 template set, 3 options template set, 256 and
// above data sets.
using TemplateId = Kel::U16;

// One field of a flow-group record (or of an options template): its kind,
// where it stands, how long it is and whether it is a flow key.
class FtTemplateEntry : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FtTemplateEntry> {
    public:
      virtual void onFieldLen() {}
      virtual void onEnterpriseIe() {}
      virtual void onFlowKey() {}
   };

   FtTemplateEntry(Kel::U32 position, Ipfix::RecordType fieldId)
       : position_(position), fieldId_(fieldId) {}

   Kel::U32 position() const { return position_; }
   Ipfix::RecordType fieldId() const { return fieldId_; }
   // Octets; only the low 16 bits go on the wire, so 65535 is variable length.
   Kel::U32 fieldLen() const { return fieldLen_; }
   void fieldLenIs(Kel::U32 v) { attributeIs(fieldLen_, v, &Notifiee::onFieldLen); }
   bool enterpriseIe() const { return enterpriseIe_; }
   void enterpriseIeIs(bool v) { attributeIs(enterpriseIe_, v, &Notifiee::onEnterpriseIe); }
   bool flowKey() const { return flowKey_; }
   void flowKeyIs(bool v) { attributeIs(flowKey_, v, &Notifiee::onFlowKey); }

 private:
   Kel::U32 position_;
   Ipfix::RecordType fieldId_;
   Kel::U32 fieldLen_ = 0;
   bool enterpriseIe_ = false;
   bool flowKey_ = false;
};

// One flow group: the layout of the records the hardware exports for it.
// `genId` moves whenever the hardware rewrites the layout.
class FgStatus : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FgStatus> {
    public:
      virtual void onFieldCount() {}
      virtual void onEntryCount() {}
      virtual void onGenId() {}
      virtual void onTemplateEntry(Kel::U32) {}
   };

   explicit FgStatus(TemplateId templateId) : templateId_(templateId) {}

   TemplateId templateId() const { return templateId_; }
   Kel::U16 fieldCount() const { return fieldCount_; }
   void fieldCountIs(Kel::U16 v) { attributeIs(fieldCount_, v, &Notifiee::onFieldCount); }
   // Flows the group holds; a group without entries exports nothing.
   Kel::U32 entryCount() const { return entryCount_; }
   void entryCountIs(Kel::U32 v) { attributeIs(entryCount_, v, &Notifiee::onEntryCount); }
   Kel::U32 genId() const { return genId_; }
   void genIdIs(Kel::U32 v) { attributeIs(genId_, v, &Notifiee::onGenId); }

   // Fields by position.
   const std::map<Kel::U32, Kel::Ptr<FtTemplateEntry>>& templateEntry() const {
      return templateEntry_;
   }
   Kel::Ptr<FtTemplateEntry> templateEntry(Kel::U32 position) const {
      return Kel::findEntry(templateEntry_, position);
   }
   // onTemplateEntry(position) also tells of an entry's field specifier
   // (length or enterprise flag) rewritten in place, so that whoever follows
   // the layout needs one reactor for the group, not one for each field.
   void templateEntryIs(const Kel::Ptr<FtTemplateEntry>& e) {
      entryForwarder_[e->position()] = std::make_unique<EntryForwarder>(e, this);
      entryIs(templateEntry_, e->position(), e, &Notifiee::onTemplateEntry);
   }
   void templateEntryDel(Kel::U32 position) {
      entryForwarder_.erase(position);
      entryDel(templateEntry_, position, &Notifiee::onTemplateEntry);
   }
   void templateEntryDelAll() {
      entryForwarder_.clear();
      entryDelAll(templateEntry_, &Notifiee::onTemplateEntry);
   }

 private:
   class EntryForwarder : public FtTemplateEntry::Notifiee {
    public:
      EntryForwarder(const Kel::Ptr<const FtTemplateEntry>& e, const FgStatus* fg) : fg_(fg) {
         notifierIs(e);
      }
      void onFieldLen() override { forward(); }
      void onEnterpriseIe() override { forward(); }

    private:
      void forward() const {
         fg_->notify(&FgStatus::Notifiee::onTemplateEntry, notifier()->position());
      }
      const FgStatus* fg_;
   };

   TemplateId templateId_;
   Kel::U16 fieldCount_ = 0;
   Kel::U32 entryCount_ = 0;
   Kel::U32 genId_ = 0;
   std::map<Kel::U32, Kel::Ptr<FtTemplateEntry>> templateEntry_;
   std::map<Kel::U32, std::unique_ptr<EntryForwarder>> entryForwarder_;
};

// One tracker as the hardware runs it.
class FtStatus : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<FtStatus> {
    public:
      virtual void onActiveInterval() {}
      virtual void onInactiveTimeout() {}
      virtual void onHwFgStatus(TemplateId) {}
   };

   explicit FtStatus(Kel::Name name) : name_(std::move(name)) {}
   const Kel::Name& name() const { return name_; }

   // In effect, in seconds.
   Kel::Seconds activeInterval() const { return activeInterval_; }
   void activeIntervalIs(Kel::Seconds v) {
      attributeIs(activeInterval_, v, &Notifiee::onActiveInterval);
   }
   Kel::Seconds inactiveTimeout() const { return inactiveTimeout_; }
   void inactiveTimeoutIs(Kel::Seconds v) {
      attributeIs(inactiveTimeout_, v, &Notifiee::onInactiveTimeout);
   }

   // Flow groups by template id, in ascending order.
   const std::map<TemplateId, Kel::Ptr<FgStatus>>& hwFgStatus() const { return hwFgStatus_; }
   Kel::Ptr<FgStatus> hwFgStatus(TemplateId id) const { return Kel::findEntry(hwFgStatus_, id); }
   void hwFgStatusIs(const Kel::Ptr<FgStatus>& fg) {
      entryIs(hwFgStatus_, fg->templateId(), fg, &Notifiee::onHwFgStatus);
   }
   void hwFgStatusDel(TemplateId id) { entryDel(hwFgStatus_, id, &Notifiee::onHwFgStatus); }
   void hwFgStatusDelAll() { entryDelAll(hwFgStatus_, &Notifiee::onHwFgStatus); }

 private:
   Kel::Name name_;
   Kel::Seconds activeInterval_ = 300;
   Kel::Seconds inactiveTimeout_ = 15;
   std::map<TemplateId, Kel::Ptr<FgStatus>> hwFgStatus_;
};

// All trackers of one flow-tracking type, and the sampling they share.
class Status : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<Status> {
    public:
      virtual void onSampleRate() {}
      virtual void onHwFtStatus(const Kel::Name&) {}
   };

   // One packet out of this many is sampled.
   Kel::U32 sampleRate() const { return sampleRate_; }
   void sampleRateIs(Kel::U32 v) { attributeIs(sampleRate_, v, &Notifiee::onSampleRate); }

   const std::map<Kel::Name, Kel::Ptr<FtStatus>>& hwFtStatus() const { return hwFtStatus_; }
   Kel::Ptr<FtStatus> hwFtStatus(const Kel::Name& name) const {
      return Kel::findEntry(hwFtStatus_, name);
   }
   void hwFtStatusIs(const Kel::Ptr<FtStatus>& ft) {
      entryIs(hwFtStatus_, ft->name(), ft, &Notifiee::onHwFtStatus);
   }
   void hwFtStatusDel(const Kel::Name& name) {
      entryDel(hwFtStatus_, name, &Notifiee::onHwFtStatus);
   }

 private:
   Kel::U32 sampleRate_ = 1;
   std::map<Kel::Name, Kel::Ptr<FtStatus>> hwFtStatus_;
};

}  // namespace HwFlowTracking
