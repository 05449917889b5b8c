#include <gtest/gtest.h>

#include "Kel/Log.h"

namespace {

const Kel::LogHandle exporterActive("FLOWTRACKING", "EXPORTER_ACTIVE", 6,
                                    "%s exporter %s in VRF %s, in %s flow tracker %s is active.",
                                    "This exporter is ready to export packets.",
                                    Kel::LogHandle::noActionRequired, 0, 1.0, 0);

TEST(Log, FormatsSyslogStyleLineAndCaptures) {
   Kel::LogCapture capture;
   exporterActive.log({"IPFIX", "e1", "default", "Hardware", "t1"});
   ASSERT_EQ(capture.lines().size(), 1u);
   EXPECT_EQ(capture.lines()[0],
             "%FLOWTRACKING-6-EXPORTER_ACTIVE: IPFIX exporter e1 in VRF default, in Hardware flow "
             "tracker t1 is active.");
   EXPECT_EQ(capture.count("EXPORTER_ACTIVE"), 1u);
   EXPECT_EQ(capture.count("EXPORTER_INACTIVE"), 0u);
   EXPECT_EQ(exporterActive.id(), "FLOWTRACKING_EXPORTER_ACTIVE");
}

TEST(Log, MissingArgumentsLeaveGapsAndExtraOnesAreIgnored) {
   EXPECT_EQ(exporterActive.text({"IPFIX", "e1"}),
             "IPFIX exporter e1 in VRF , in  flow tracker  is active.");
   EXPECT_EQ(exporterActive.text({"a", "b", "c", "d", "e", "f"}),
             "a exporter b in VRF c, in d flow tracker e is active.");
}

}  // namespace
