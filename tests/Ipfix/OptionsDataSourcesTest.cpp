#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Ipfix/OptionsDataSourceFlowKeySm.h"

// The edges of the flow key record that the loopback and agent tests, which
// decode whole tables, never reach (they see IPv4 and IPv6 keys at the start).
namespace {

using FlowTracking::OptionsDataScope;
using R = Ipfix::RecordType;

struct Field {
   Kel::U32 position;
   R element;
   bool flowKey;
};

// The record: the template id, then the indicator, both big-endian.
TEST(FlowKeyRecord, IndicatorBitsFollowPositionsIn32BitsSignExtended) {
   const struct {
      const char* name;
      std::vector<Field> fields;
      std::optional<Kel::U64> indicator;  // nullopt: no record
   } cases[] = {
       {"keys at 0 and 2",
        {{0, R::sourceIPv4Address, true},
         {1, R::octetDeltaCount, false},
         {2, R::destinationIPv4Address, true}},
        0x5},
       {"key at 31 sets bits 31 to 63", {{31, R::protocolIdentifier, true}}, 0xFFFFFFFF80000000},
       {"key at 33 aliases onto bit 1", {{33, R::protocolIdentifier, true}}, 0x2},
       {"IPv4 then IPv6",
        {{0, R::sourceIPv4Address, true}, {1, R::destinationIPv6Address, true}},
        std::nullopt},
   };
   const auto sources =
       Kel::makeActive<FlowTracking::OptionsDataSourceColl>(OptionsDataScope::scopeTracker);
   const auto update =
       Kel::makeActive<FlowTracking::OptionsDataUpdate>(OptionsDataScope::scopeTracker);
   const auto status = Kel::makeActive<HwFlowTracking::FtStatus>("ft1");
   const auto sm = Kel::makePtr<FlowTracking::FlowKeySm>(
       sources->sourceIs("source", FlowTracking::FlowKeySm::setId()), update, status);
   HwFlowTracking::TemplateId id = 256;
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto fg = Kel::makeActive<HwFlowTracking::FgStatus>(id);
      for (const Field& f : c.fields) {
         auto e = Kel::makeActive<HwFlowTracking::FtTemplateEntry>(f.position, f.element);
         e->flowKeyIs(f.flowKey);
         fg->templateEntryIs(e);
      }
      fg->entryCountIs(16);
      status->hwFgStatusIs(fg);
      const FlowTracking::DataRecordPtr record = sm->makeDataRecord(id);
      if (!c.indicator) {
         EXPECT_EQ(record, nullptr);
      } else {
         ASSERT_NE(record, nullptr);
         std::string expected = {char(id >> 8), char(id & 0xFF)};
         for (int shift = 56; shift >= 0; shift -= 8) {
            expected.push_back(static_cast<char>(*c.indicator >> shift));
         }
         EXPECT_EQ(record->data(), expected);
      }
      ++id;
   }
}

}  // namespace
