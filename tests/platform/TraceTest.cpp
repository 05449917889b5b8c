#include <gtest/gtest.h>
#include <unistd.h>

#include "Kel/Trace.h"
#include "Trace/Duplog.h"
#include "Trace/Flitlog.h"
#include "Trace/Sinks.h"

namespace {

Kel::TraceHandle traceTest("TraceTest");

// Counts how often it is formatted, to prove disabled levels format nothing.
struct Expensive {
   mutable int* formatted;
};

}  // namespace

template <>
struct fmt::formatter<Expensive> : fmt::formatter<int> {
   auto format(const Expensive& e, fmt::format_context& ctx) const {
      ++*e.formatted;
      return fmt::format_to(ctx.out(), "expensive");
   }
};

namespace {

TEST(Trace, LevelFilteringAndCapture) {
   Kel::Trace::configure("TraceOther/9");
   const Kel::TraceHandle other("TraceOther");
   Kel::TraceCapture capture("TraceTest", 3);
   int formatted = 0;
   KEL_TRACE(other, 1, "a line of another facility, which the capture leaves out");
   KEL_TRACE(traceTest, 4, "entry {}", Expensive{&formatted});
   KEL_TRACE(traceTest, 3, "Created ExporterInfoSm for {}", "e1");
   KEL_TRACE(traceTest, 1, "Caught ErrnoException: {}", Expensive{&formatted});
   EXPECT_EQ(formatted, 1);
   EXPECT_EQ(capture.lines(), (std::vector<Kel::String>{"Created ExporterInfoSm for e1",
                                                        "Caught ErrnoException: expensive"}));
   EXPECT_EQ(capture.lines(1), (std::vector<Kel::String>{"Caught ErrnoException: expensive"}));
   EXPECT_TRUE(capture.contains("Created ExporterInfoSm for e1"));
   Kel::Trace::configure("TraceOther/0");
}

TEST(Trace, CaptureRestoresLevelWhenDone) {
   const int before = traceTest.level();
   {
      Kel::TraceCapture capture("TraceTest", 9);
      EXPECT_EQ(traceTest.level(), 9);
   }
   EXPECT_EQ(traceTest.level(), before);
}

TEST(Trace, ConfigureParsesSpecsAndRejectsBadOnesWithoutChange) {
   const struct {
      const char* spec;
      bool ok;
   } cases[] = {
       {"TraceTest/5", true},
       {"Other/2,TraceTest/7", true},
       {"TraceTest", false},
       {"TraceTest/10", false},
       {"/3", false},
       {"TraceTest/x", false},
       {"TraceTest/3,Bad", false},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.spec);
      Kel::Trace::configure("TraceTest/0");
      Kel::String error;
      EXPECT_EQ(Kel::Trace::configure(c.spec, &error), c.ok);
      EXPECT_EQ(error.empty(), c.ok);
      if (!c.ok) {
         EXPECT_EQ(traceTest.level(), 0) << "a rejected spec changed a level";
      }
   }
   Kel::Trace::configure("TraceTest/0,Other/0");
}

TEST(Trace, HandleCreatedLaterPicksUpConfiguredLevel) {
   Kel::Trace::configure("LateFacility/6");
   const Kel::TraceHandle late("LateFacility");
   EXPECT_TRUE(late.enabled(6));
   EXPECT_FALSE(late.enabled(7));
   Kel::Trace::configure("LateFacility/0");
}

TEST(Flitlog, RingKeepsTheLastRecordsInOrder) {
   Flitlog::Ring ring(3);
   for (int i = 1; i <= 5; ++i) {
      const Kel::String text = "line " + std::to_string(i);
      ring.write(Kel::TraceRecord{100.5, "Fac", 2, text});
   }
   ASSERT_EQ(ring.size(), 3u);
   EXPECT_EQ(ring.lines(),
             (std::vector<Kel::String>{"100.500000 Fac/2 line 3", "100.500000 Fac/2 line 4",
                                       "100.500000 Fac/2 line 5"}));

   const Kel::String longText(500, 'x');
   ring.write(Kel::TraceRecord{1.0, "Fac", 1, longText});
   EXPECT_EQ(ring.lines().back(),
             "1.000000 Fac/1 " + Kel::String(Flitlog::Ring::textCapacity, 'x') + "...");

   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   ring.dump(fds[1]);
   close(fds[1]);
   char buf[4096];
   const ssize_t n = read(fds[0], buf, sizeof buf);
   close(fds[0]);
   const Kel::String dumped(buf, n > 0 ? std::size_t(n) : 0);
   EXPECT_EQ(dumped.find("line 3"), Kel::String::npos);
   EXPECT_NE(dumped.find("line 4\n"), Kel::String::npos);
   EXPECT_LT(dumped.find("line 5"), dumped.find("xxx"));
}

TEST(Duplog, LineHasTimeFacilityLevelAndText) {
   EXPECT_EQ(Duplog::formatLine(Kel::TraceRecord{1700000000.25, "Ipfix", 3, "Created x"}),
             "2023-11-14 22:13:20.250000 Ipfix/3 Created x\n");
}

TEST(Trace, EnabledLinesReachBothTheRingAndTheTextTrace) {
   const auto previous = Kel::Trace::sinks();
   TraceSinks::installDefaults();
   char path[] = "/tmp/duplog-test-XXXXXX";
   const int fd = mkstemp(path);
   ASSERT_GE(fd, 0);
   close(fd);
   Kel::String error;
   ASSERT_TRUE(Duplog::textTrace().outputIs(path, &error)) << error;
   Kel::Trace::configure("TraceTest/2");
   KEL_TRACE(traceTest, 2, "to both {}", 42);
   KEL_TRACE(traceTest, 3, "to neither");
   Duplog::textTrace().outputToStderr();
   Kel::Trace::configure("TraceTest/0");
   Kel::Trace::sinksIs(previous);

   EXPECT_TRUE(Flitlog::ring().lines().back().ends_with("TraceTest/2 to both 42"));
   FILE* f = fopen(path, "r");
   char line[256] = {};
   ASSERT_NE(fgets(line, sizeof line, f), nullptr);
   fclose(f);
   unlink(path);
   EXPECT_TRUE(Kel::String(line).ends_with(" TraceTest/2 to both 42\n")) << line;
   EXPECT_FALSE(Duplog::textTrace().outputIs("/nonexistent-dir/x", &error));
   EXPECT_NE(error.find("/nonexistent-dir/x"), Kel::String::npos);
}

}  // namespace
