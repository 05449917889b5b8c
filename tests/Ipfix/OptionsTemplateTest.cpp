#include <gtest/gtest.h>

#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsTemplate.h"
#include "Kel/Exception.h"
#include "support/ThrownText.h"

namespace {

using Ipfix::RecordType;

TEST(OptionsTemplate, RecordLengthCountsEnterpriseFieldsAsEight) {
   const auto eic = Ipfix::ipfixInitSmFactory()->elementIdCollection();
   const struct {
      const char* name;
      std::vector<RecordType> scope, fields;
      Kel::U32 length;
   } cases[] = {
       {"IntfTable", {RecordType::ingressInterface}, {RecordType::interfaceName}, 14},
       {"FlowTrackerTable",
        {RecordType::observationDomainId},
        {RecordType::observationDomainName, RecordType::flowActiveTimeout,
         RecordType::flowIdleTimeout, RecordType::selectorAlgorithm, RecordType::samplingSize,
         RecordType::samplingPopulation, RecordType::flowTrackingType},
        42},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto t = Kel::makeActive<FlowTracking::OptionsTemplate>(c.name, 300);
      for (RecordType r : c.scope) {
         FlowTracking::addScopeField(*eic, *t, r);
      }
      for (RecordType r : c.fields) {
         FlowTracking::addField(*eic, *t, r);
      }
      EXPECT_EQ(FlowTracking::getTemplateEntryLength(*t), c.length);
      EXPECT_EQ(t->field().rbegin()->first, c.fields.size() - 1) << "appended by position";
   }
}

TEST(OptionsTemplate, MalformedTemplatesAndUnknownFieldsAreAssertions) {
   const auto eic = Ipfix::ipfixInitSmFactory()->elementIdCollection();
   auto t = Kel::makeActive<FlowTracking::OptionsTemplate>("T", 300);
   EXPECT_EQ(thrownText([&] { FlowTracking::getTemplateEntryLength(*t); }),
             "templateEntry->scopeFields() > 0");
   FlowTracking::addScopeField(*eic, *t, RecordType::templateId);
   EXPECT_EQ(thrownText([&] { FlowTracking::getTemplateEntryLength(*t); }),
             "templateEntry->fields() >= templateEntry->scopeFields()");
   EXPECT_EQ(thrownText([&] { FlowTracking::addField(*eic, *t, RecordType(3)); }),
             "eic->elementIdCollHas( field->fieldId() )");

   auto entry = Kel::makeActive<HwFlowTracking::FtTemplateEntry>(0, RecordType::innerSrcIp6);
   FlowTracking::updateFieldInfo(*eic, *entry);
   EXPECT_EQ(entry->fieldLen(), 16u);
   EXPECT_TRUE(entry->enterpriseIe());
}

}  // namespace
