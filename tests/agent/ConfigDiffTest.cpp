#include <gtest/gtest.h>

#include "ConfigText.h"
#include "agent/ConfigDiff.h"

namespace {

using ConfigText::configOf;
using ConfigText::edited;

const Kel::String base = R"(flow-tracking:
  hardware:
    sample-rate: 1
    trackers:
      - name: ft1
        id: 1
        active-interval-ms: 300000
        exporters:
          - name: e1
            dscp: 0
            mtu: 1500
            collectors:
              - { name: c1, address: 127.0.0.1, port: 4739 }
              - { name: c2, address: "::1", port: 4740 }
        flow-groups:
          - template-id: 256
            entries: 10
            fields:
              - { element: sourceIPv4Address, flow-key: true }
              - octetDeltaCount
interfaces:
  - { name: Ethernet1, index: 1 }
  - { name: Ethernet2, index: 2 }
vrfs:
  - { id: 1, name: blue }
)";

std::vector<Kel::String> changeTexts(const std::vector<Agent::Change>& changes) {
   std::vector<Kel::String> texts;
   for (const auto& c : changes) {
      texts.push_back(c.str());
   }
   return texts;
}

TEST(ConfigDiff, ChangesAsASwitchConfigurationChanges) {
   const Kel::String tracker = "hardware/ft1";
   const struct {
      const char* name;
      Kel::String after;
      std::vector<Kel::String> changes;
   } cases[] = {
       {"nothing", base, {}},
       {"exporter attributes",
        edited(edited(base, "dscp: 0", "dscp: 46"), "mtu: 1500", "mtu: 9000"),
        {"changed exporter hardware/ft1/e1: dscp, mtu"}},
       {"exporter source and VRF",
        edited(base, "mtu: 1500",
               "mtu: 1500\n            source-ipv4: 10.0.0.1\n            vrf: red"),
        {"changed exporter hardware/ft1/e1: source-ipv4, vrf"}},
       {"collector moves to the other family: same collector, no IPv4 source left",
        edited(base, "address: 127.0.0.1, port: 4739", "address: \"::1\", port: 4739"),
        {"changed exporter hardware/ft1/e1: source-ipv4",
         "changed collector hardware/ft1/e1/c1: address"}},
       {"collector port",
        edited(base, "port: 4740", "port: 4741"),
        {"changed collector hardware/ft1/e1/c2: port"}},
       {"collector renamed",
        edited(base, "name: c1", "name: c0"),
        {"removed collector hardware/ft1/e1/c1", "added collector hardware/ft1/e1/c0"}},
       {"tracker id is its identity",
        edited(base, "id: 1\n", "id: 2\n"),
        {"removed tracker hardware/ft1", "added tracker hardware/ft1"}},
       {"tracker renamed",
        edited(base, "name: ft1", "name: ft9"),
        {"removed tracker hardware/ft1", "added tracker hardware/ft9"}},
       {"tracker timers",
        edited(base, "active-interval-ms: 300000",
               "active-interval-ms: 60000\n        inactive-timeout-ms: 1000"),
        {"changed tracker hardware/ft1: active-interval-ms, inactive-timeout-ms"}},
       {"flow-key flag",
        edited(base, "flow-key: true", "flow-key: false"),
        {"changed flow group hardware/ft1/256: fields"}},
       {"entries and fields",
        edited(edited(base, "entries: 10", "entries: 0"), "- octetDeltaCount",
               "- octetDeltaCount\n              - packetDeltaCount"),
        {"changed flow group hardware/ft1/256: entries, fields"}},
       {"template id is the flow group's identity",
        edited(base, "template-id: 256", "template-id: 300"),
        {"removed flow group hardware/ft1/256", "added flow group hardware/ft1/300"}},
       {"sample rate",
        edited(base, "sample-rate: 1", "sample-rate: 100"),
        {"changed tracking type hardware: sample-rate"}},
       {"a type added: its trackers come with it",
        edited(base, "interfaces:",
               "  sampled:\n    trackers:\n      - { name: ft2, id: 1 }\ninterfaces:"),
        {"added tracking type sampled"}},
       {"everything of a type removed",
        edited(base, "  hardware:", "  sampled:"),
        {"removed tracking type hardware", "added tracking type sampled"}},
       {"an interface takes a removed one's index, another comes",
        edited(edited(base, "index: 1 }", "index: 2 }\n  - { name: Ethernet3, index: 3 }"),
               "  - { name: Ethernet2, index: 2 }\n", ""),
        {"removed interface Ethernet2", "changed interface Ethernet1: index",
         "added interface Ethernet3"}},
       {"VRF renamed, VRF added",
        edited(base, "name: blue }", "name: red }\n  - { id: 2, name: blue }"),
        {"changed vrf 1: name", "added vrf 2"}},
       {"statistics table",
        edited(base, "flow-tracking:", "statistics-table: other\nflow-tracking:"),
        {"changed statistics table: name"}},
       {"removals first, then changes, then additions",
        edited(edited(base, "name: e1", "name: e2"), "active-interval-ms: 300000",
               "active-interval-ms: 1000"),
        {"removed exporter hardware/ft1/e1", "changed tracker hardware/ft1: active-interval-ms",
         "added exporter hardware/ft1/e2"}},
   };
   const auto before = configOf(base);
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      EXPECT_EQ(changeTexts(Agent::diff(before, configOf(c.after))), c.changes);
   }
}

TEST(ConfigDiff, AddedAndRemovedObjectsCarryTheirContents) {
   const auto demo = configOf(ConfigText::readFile(ConfigText::demoPath()));
   const Agent::AgentConfig empty;
   EXPECT_EQ(
       changeTexts(Agent::diff(empty, demo)),
       (std::vector<Kel::String>{"added tracking type hardware", "added interface Ethernet1",
                                 "added interface Ethernet2", "added interface Port-Channel10",
                                 "added vrf 1", "added vrf 2"}));
   EXPECT_EQ(
       changeTexts(Agent::diff(demo, empty)),
       (std::vector<Kel::String>{"removed tracking type hardware", "removed interface Ethernet1",
                                 "removed interface Ethernet2", "removed interface Port-Channel10",
                                 "removed vrf 1", "removed vrf 2"}));
}

}  // namespace
