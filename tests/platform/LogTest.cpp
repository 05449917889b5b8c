#include <gtest/gtest.h>

#include "Kel/Log.h"
#include "Kel/System.h"

namespace {

const Kel::LogHandle exporterActive("FLOWTRACKING", "EXPORTER_ACTIVE", 6,
                                    "%s exporter %s in VRF %s, in %s flow tracker %s is active.",
                                    "This exporter is ready to export packets.",
                                    Kel::LogHandle::noActionRequired, 0, 1.0, 0);

// The full line of a message is checked where the exporters log it.
TEST(Log, MissingArgumentsLeaveGapsAndExtraOnesAreIgnored) {
   EXPECT_EQ(exporterActive.id(), "FLOWTRACKING_EXPORTER_ACTIVE");
   EXPECT_EQ(exporterActive.text({"IPFIX", "e1"}),
             "IPFIX exporter e1 in VRF , in  flow tracker  is active.");
   EXPECT_EQ(exporterActive.text({"a", "b", "c", "d", "e", "f"}),
             "a exporter b in VRF c, in d flow tracker e is active.");
}

// A rate-limited message goes out `burst` times an interval; the owner of an
// unlimited one (the exporters' messages) gives 0 for the flag.
TEST(Log, RateLimitedMessagesKeepToTheirBurst) {
   Kel::ScopedManualClock clock(100.0);
   const Kel::LogHandle limited("T", "LIMITED", 4, "%s", "", "", 2, 10.0, 1);
   Kel::LogCapture logs;
   for (double at : {0.0, 1.0, 2.0, 9.0, 10.0, 10.5, 11.0}) {
      clock.clock().advanceTo(100.0 + at);
      limited.log({fmt::format("{}", at)});
      exporterActive.log({"IPFIX"});
   }
   EXPECT_EQ(logs.count("LIMITED"), 4u) << "two at 0 and 1, two at 10 and 10.5";
   EXPECT_EQ(logs.count("EXPORTER_ACTIVE"), 7u);
}

}  // namespace
