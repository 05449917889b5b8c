#include <gtest/gtest.h>

#include "Kel/Log.h"

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

}  // namespace
