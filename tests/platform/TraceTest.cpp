#include <gtest/gtest.h>

#include "Kel/Trace.h"

namespace {

Kel::TraceHandle traceTest("TraceTest");

// A capture takes its facility's lines at or below its level, then gives the
// facility its level back.
TEST(Trace, CaptureKeepsToItsFacilityAndLevelAndRestoresTheLevelWhenDone) {
   // A handle made after its facility was configured picks the level up.
   Kel::Trace::configure("TraceOther/2,TraceTest/2");
   const Kel::TraceHandle other("TraceOther");
   EXPECT_TRUE(other.enabled(2));
   EXPECT_FALSE(other.enabled(3));
   {
      Kel::TraceCapture capture("TraceTest", 3);
      KEL_TRACE(other, 1, "a line of another facility, which the capture leaves out");
      KEL_TRACE(traceTest, 4, "a line above the capture's level");
      KEL_TRACE(traceTest, 3, "Created ExporterInfoSm for {}", "e1");
      KEL_TRACE(traceTest, 1, "Caught ErrnoException: {}", "x");
      EXPECT_EQ(capture.lines(), (std::vector<Kel::String>{"Created ExporterInfoSm for e1",
                                                           "Caught ErrnoException: x"}));
      EXPECT_EQ(capture.lines(1), (std::vector<Kel::String>{"Caught ErrnoException: x"}));
   }
   EXPECT_EQ(traceTest.level(), 2);
   Kel::Trace::configure("TraceOther/0,TraceTest/0");
}

TEST(Trace, ConfigureAppliesValidSettingsAndRejectsBadOnesWithoutChange) {
   const struct {
      const char* setting;
      int level;  // TraceTest's level afterwards; -1: rejected
   } cases[] = {
       {"TraceTest/5", 5},
       {"Other/2,TraceTest/7", 7},
       {"TraceTest", -1},
       {"TraceTest/10", -1},
       {"/3", -1},
       {"TraceTest/x", -1},
       {"TraceTest/3,Bad", -1},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.setting);
      Kel::Trace::configure("TraceTest/0");
      EXPECT_EQ(Kel::Trace::configure(c.setting), c.level >= 0);
      EXPECT_EQ(traceTest.level(), std::max(c.level, 0));
   }
}

}  // namespace
