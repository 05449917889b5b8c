#include "Ipfix/OptionsTemplate.h"

#include "Kel/Exception.h"
#include "Kel/Trace.h"
#include "Nivel/IpfixHeader.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

constexpr Kel::U32 optionsTemplateHeaderLength = 6;

}  // namespace

Kel::Ptr<FtTemplateEntry> OptionsTemplate::scopeFieldIs(Kel::U32 position, Ipfix::RecordType type) {
   return entryFindOrCreate(
       scopeField_, position, [&] { return Kel::makeActive<FtTemplateEntry>(position, type); },
       &Notifiee::onScopeField);
}

Kel::Ptr<FtTemplateEntry> OptionsTemplate::fieldIs(Kel::U32 position, Ipfix::RecordType type) {
   return entryFindOrCreate(
       field_, position, [&] { return Kel::makeActive<FtTemplateEntry>(position, type); },
       &Notifiee::onField);
}

Kel::Ptr<OptionsTemplate> OptionsTemplateConfig::templateEntryIs(const Kel::String& name,
                                                                 TemplateId templateId) {
   return entryFindOrCreate(
       templateEntry_, name, [&] { return Kel::makeActive<OptionsTemplate>(name, templateId); },
       &Notifiee::onTemplateEntry);
}

Kel::U32 fieldSpecifierLength(const FtTemplateEntry& entry) {
   return entry.enterpriseIe() ? 8 : 4;
}

Kel::U32 getTemplateEntryLength(const OptionsTemplate& t) {
   KEL_ASSERT_TEXT(t.scopeFields() > 0, "templateEntry->scopeFields() > 0");
   KEL_ASSERT_TEXT(t.fields() >= t.scopeFields(),
                   "templateEntry->fields() >= templateEntry->scopeFields()");
   Kel::U32 length = optionsTemplateHeaderLength;
   for (const auto* fields : {&t.scopeField(), &t.field()}) {
      for (const auto& [position, entry] : *fields) {
         length += fieldSpecifierLength(*entry);
      }
   }
   return length;
}

Kel::U32 writeFieldSpecifier(const Kel::Ptr<Nivel::Pkt>& pkt, Kel::U32 offset,
                             const FtTemplateEntry& entry) {
   Nivel::FieldSpecifier spec(pkt, offset);
   spec.elementIdIs(entry.enterpriseIe(), static_cast<Kel::U16>(entry.fieldId()));
   spec.fieldLengthIs(static_cast<Kel::U16>(entry.fieldLen()));
   if (entry.enterpriseIe()) {
      spec.enterpriseNumberIs(Ipfix::enterpriseNumber);
   }
   return offset + spec.wireLen();
}

void updateFieldInfo(const Ipfix::ElementIdColl& eic, FtTemplateEntry& entry) {
   KEL_ASSERT_TEXT(eic.elementIdCollHas(entry.fieldId()),
                   "eic->elementIdCollHas( field->fieldId() )");
   const Ipfix::ElementId e = eic.elementIdColl(entry.fieldId());
   entry.fieldLenIs(e.len());
   entry.enterpriseIeIs(e.enterpriseIe());
}

void addScopeField(const Ipfix::ElementIdColl& eic, OptionsTemplate& t, Ipfix::RecordType type) {
   const auto entry = t.scopeFieldIs(t.scopeFields(), type);
   updateFieldInfo(eic, *entry);
   KEL_TRACE(traceIpfix, 3, "Added field [scope] {} to {}", type, t.name());
}

void addField(const Ipfix::ElementIdColl& eic, OptionsTemplate& t, Ipfix::RecordType type) {
   const auto entry = t.fieldIs(t.fields(), type);
   updateFieldInfo(eic, *entry);
   KEL_TRACE(traceIpfix, 3, "Added field {} to {}", type, t.name());
}

}  // namespace FlowTracking
