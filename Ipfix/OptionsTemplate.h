#pragma once

#include <map>

#include "HwFlowTracking/Status.h"
#include "Ipfix/Ipfix.h"
#include "Nivel/Pkt.h"

namespace FlowTracking {

using HwFlowTracking::FtTemplateEntry;
using HwFlowTracking::TemplateId;

// One options template: scope fields and fields, each by position from 0.
class OptionsTemplate : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<OptionsTemplate> {
    public:
      virtual void onScopeField(Kel::U32) {}
      virtual void onField(Kel::U32) {}
   };

   OptionsTemplate(Kel::String name, TemplateId templateId)
       : name_(std::move(name)), templateId_(templateId) {}

   const Kel::String& name() const { return name_; }
   TemplateId templateId() const { return templateId_; }

   const std::map<Kel::U32, Kel::Ptr<FtTemplateEntry>>& scopeField() const { return scopeField_; }
   Kel::Ptr<FtTemplateEntry> scopeFieldIs(Kel::U32 position, Ipfix::RecordType type);
   void scopeFieldDel(Kel::U32 position) {
      entryDel(scopeField_, position, &Notifiee::onScopeField);
   }
   void scopeFieldDelAll() { entryDelAll(scopeField_, &Notifiee::onScopeField); }
   Kel::U32 scopeFields() const { return static_cast<Kel::U32>(scopeField_.size()); }

   const std::map<Kel::U32, Kel::Ptr<FtTemplateEntry>>& field() const { return field_; }
   Kel::Ptr<FtTemplateEntry> fieldIs(Kel::U32 position, Ipfix::RecordType type);
   void fieldDel(Kel::U32 position) { entryDel(field_, position, &Notifiee::onField); }
   void fieldDelAll() { entryDelAll(field_, &Notifiee::onField); }
   Kel::U32 fields() const { return static_cast<Kel::U32>(field_.size()); }

 private:
   Kel::String name_;
   TemplateId templateId_;
   std::map<Kel::U32, Kel::Ptr<FtTemplateEntry>> scopeField_;
   std::map<Kel::U32, Kel::Ptr<FtTemplateEntry>> field_;
};

// The options templates of one flow-tracking type. Writers raise `version`
// once a change is complete; exporters react to the version only, so they
// never encode half a change.
class OptionsTemplateConfig : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<OptionsTemplateConfig> {
    public:
      virtual void onTemplateEntry(const Kel::String&) {}
      virtual void onVersion() {}
   };

   const std::map<Kel::String, Kel::Ptr<OptionsTemplate>>& templateEntry() const {
      return templateEntry_;
   }
   Kel::Ptr<OptionsTemplate> templateEntry(const Kel::String& name) const {
      return Kel::findEntry(templateEntry_, name);
   }
   Kel::Ptr<OptionsTemplate> templateEntryIs(const Kel::String& name, TemplateId templateId);
   void templateEntryDel(const Kel::String& name) {
      entryDel(templateEntry_, name, &Notifiee::onTemplateEntry);
   }
   void templateEntryDelAll() { entryDelAll(templateEntry_, &Notifiee::onTemplateEntry); }

   Kel::U32 version() const { return version_; }
   void versionInc(Kel::U32 n) { attributeIs(version_, version_ + n, &Notifiee::onVersion); }

 private:
   std::map<Kel::String, Kel::Ptr<OptionsTemplate>> templateEntry_;
   Kel::U32 version_ = 0;
};

// Octets of one options template record: header (id, field count, scope
// field count) and one field specifier per scope field and field.
Kel::U32 getTemplateEntryLength(const OptionsTemplate& templateEntry);

// Octets of one field specifier: 8 with an enterprise number, else 4.
Kel::U32 fieldSpecifierLength(const FtTemplateEntry& entry);

// Writes the field specifier of `entry` at `offset` of the packet's data:
// enterprise bit, element id, the low 16 bits of the length and, for an
// enterprise-specific element, our enterprise number. Returns the offset
// behind it.
Kel::U32 writeFieldSpecifier(const Kel::Ptr<Nivel::Pkt>& pkt, Kel::U32 offset,
                             const FtTemplateEntry& entry);

// Completes a template entry's length and enterprise flag from the catalogue.
void updateFieldInfo(const Ipfix::ElementIdColl& eic, FtTemplateEntry& field);

// Append one scope field or field of `type` to an options template, described
// as the catalogue has it.
void addScopeField(const Ipfix::ElementIdColl& eic, OptionsTemplate& t, Ipfix::RecordType type);
void addField(const Ipfix::ElementIdColl& eic, OptionsTemplate& t, Ipfix::RecordType type);

}  // namespace FlowTracking
