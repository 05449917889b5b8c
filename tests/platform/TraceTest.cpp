#include <gtest/gtest.h>

#include "Kel/Trace.h"

namespace {

Kel::TraceHandle traceTest("TraceTest");

// A capture takes its facility's lines at or below its level, then gives the
// facility its level back; a setting is applied whole or not at all.
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
   // A setting with one bad part changes nothing.
   for (const char* bad : {"TraceTest/5,Bad", "TraceTest/5,TraceOther/10", "TraceTest/5,/3",
                           "TraceTest/5,TraceOther/x"}) {
      EXPECT_FALSE(Kel::Trace::configure(bad)) << bad;
      EXPECT_EQ(traceTest.level(), 2) << bad;
   }
   Kel::Trace::configure("TraceOther/0,TraceTest/0");
}

}  // namespace
