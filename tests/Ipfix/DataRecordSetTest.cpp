#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "Ipfix/DataRecordSet.h"

namespace {

using FlowTracking::DataRecordPtr;
using FlowTracking::DataRecordSet;

// Random inserts and erases (the same record twice, absent records, the last
// and the first) checked against std::set after every step: removal moves the
// last record into the gap, so its index entry must follow it.
TEST(DataRecordSet, MatchesAnOrderedSetThroughRandomChanges) {
   std::vector<DataRecordPtr> pool;
   for (int i = 0; i < 40; ++i) {
      pool.push_back(FlowTracking::dataRecordFactory(std::to_string(i)));
   }
   std::mt19937 rng(7);
   DataRecordSet records;
   std::set<const FlowTracking::DataRecord*> expected;
   for (int step = 0; step < 3000; ++step) {
      const DataRecordPtr& r = pool[rng() % pool.size()];
      if (rng() % 2 == 0) {
         EXPECT_EQ(records.insert(r), expected.insert(r.ptr()).second);
      } else {
         EXPECT_EQ(records.erase(r), expected.erase(r.ptr()) == 1);
      }
      std::set<const FlowTracking::DataRecord*> walked;
      for (const DataRecordPtr& each : records) {
         walked.insert(each.ptr());
      }
      ASSERT_EQ(walked, expected) << "step " << step;
      ASSERT_EQ(records.size(), expected.size());
      for (const DataRecordPtr& each : pool) {
         ASSERT_EQ(records.contains(each), expected.contains(each.ptr()));
      }
   }
}

}  // namespace
