#include <gtest/gtest.h>

#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsTemplate.h"
#include "Kel/Exception.h"
#include "support/ThrownText.h"

namespace {

using Ipfix::RecordType;

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
