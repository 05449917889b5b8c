#include <gtest/gtest.h>

#include "agent/ConfigLoader.h"

namespace {

std::vector<Kel::String> errorTexts(const Agent::LoadResult& r) {
   std::vector<Kel::String> texts;
   for (const auto& e : r.errors) {
      texts.push_back(e.str());
   }
   return texts;
}

// One hardware tracker, to which cases append keys at line 6.
const Kel::String trackerHead = R"(flow-tracking:
  hardware:
    trackers:
      - name: ft1
        id: 1
)";
// ... and one exporter of it, to which cases append keys at line 8.
const Kel::String exporterHead = trackerHead + R"(        exporters:
          - name: e1
)";
const Kel::String exporterPath = "flow-tracking.hardware.trackers[0].exporters[0]";

TEST(ConfigLoader, EveryErrorNamesFileLineAndPath) {
   const Kel::String e = "t.yaml:8: " + exporterPath;
   const Kel::String groups = "flow-tracking.hardware.trackers[0].flow-groups";
   const struct {
      const char* name;
      Kel::String text;
      std::vector<Kel::String> errors;
   } cases[] = {
       {"mtu above 16 bits",
        exporterHead + "            mtu: 65536\n",
        {e + ".mtu: must be an MTU in octets (room for one record) from 173 to 65535, not 65536"}},
       {"source addresses of the wrong family",
        exporterHead + "            source-ipv4: \"::1\"\n            source-ipv6: 10.0.0.1\n",
        {e + ".source-ipv4: must be an IPv4 address, not \"::1\"",
         "t.yaml:9: " + exporterPath + ".source-ipv6: must be an IPv6 address, not 10.0.0.1"}},
       {"exporter name repeated",
        trackerHead + "        exporters:\n          - name: e1\n          - name: e1\n",
        {"t.yaml:8: flow-tracking.hardware.trackers[0].exporters[1].name: exporter name \"e1\" "
         "is already used at line 7"}},
       {"collectors, the default port 4739",
        exporterHead + R"(            collectors:
              - { name: c1, address: 127.0.0.1, port: 0 }
              - { name: c1, address: 1.2.3, port: 1 }
              - { name: c3, address: 127.0.0.1 }
              - { name: c4, address: 127.0.0.1, port: 4739 }
)",
        {"t.yaml:9: " + exporterPath +
             ".collectors[0].port: must be a UDP port from 1 to 65535, not 0",
         "t.yaml:10: " + exporterPath +
             ".collectors[1].name: collector name \"c1\" is already used at line 9",
         "t.yaml:10: " + exporterPath +
             ".collectors[1].address: must be an IPv4 or IPv6 address, not 1.2.3",
         "t.yaml:12: " + exporterPath +
             ".collectors[3].address: address 127.0.0.1 port 4739 is already used at line 11"}},
       {"tracker timers",
        trackerHead + "        active-interval-ms: 500\n        inactive-timeout-ms: 65535000\n",
        {"t.yaml:6: flow-tracking.hardware.trackers[0].active-interval-ms: must be a time in "
         "milliseconds from 1000 to 65534000, not 500",
         "t.yaml:7: flow-tracking.hardware.trackers[0].inactive-timeout-ms: must be a time in "
         "milliseconds from 1000 to 65534000, not 65535000"}},
       {"tracker ids",
        "flow-tracking:\n  hardware:\n    trackers:\n      - { name: ft1, id: -1 }\n"
        "      - { name: ft2, id: 7 }\n      - { name: ft3, id: 7 }\n",
        {"t.yaml:4: flow-tracking.hardware.trackers[0].id: must be a tracker id from 0 to "
         "4294967295, not -1",
         "t.yaml:6: flow-tracking.hardware.trackers[2].id: tracker id 7 is already used at line "
         "5"}},
       {"tracker names are unique across types, ids only within one",
        "flow-tracking:\n  hardware: { trackers: [ { name: ft1, id: 1 } ] }\n  sampled:\n"
        "    sample-rate: 0\n    trackers: [ { name: ft1, id: 1 } ]\n  netflow: {}\n",
        {"t.yaml:4: flow-tracking.sampled.sample-rate: must be a sampling rate (one packet in N) "
         "from 1 to 4294967295, not 0",
         "t.yaml:5: flow-tracking.sampled.trackers[0].name: tracker name \"ft1\" is already used "
         "at line 2",
         "t.yaml:6: flow-tracking.netflow: unknown key (expected one of: hardware, sampled)"}},
       {"flow groups",
        trackerHead + R"(        flow-groups:
          - { template-id: 255, entries: 1, fields: [octetDeltaCount] }
          - { template-id: 65533, entries: 1, fields: [] }
          - template-id: 300
            entries: many
            fields:
              - fooBar
              - { element: 99999, flow-key: yes }
              - [octetDeltaCount]
          - { template-id: 300, fields: [octetDeltaCount] }
)",
        {"t.yaml:7: " + groups +
             "[0].template-id: must be a data template id from 256 to 65531, not 255",
         "t.yaml:8: " + groups +
             "[1].template-id: template id 65533 is reserved for the options templates; data "
             "template ids run from 256 to 65531",
         "t.yaml:8: " + groups + "[1].fields: must list at least one field",
         "t.yaml:10: " + groups +
             "[2].entries: must be an entry count from 0 to 4294967295, not \"many\"",
         "t.yaml:12: " + groups + "[2].fields[0]: unknown information element \"fooBar\"",
         "t.yaml:13: " + groups + "[2].fields[1].element: unknown information element 99999",
         "t.yaml:13: " + groups + "[2].fields[1].flow-key: must be true or false, not \"yes\"",
         "t.yaml:14: " + groups + "[2].fields[2]: must be an element name or a mapping, not a list",
         "t.yaml:15: " + groups + "[3].template-id: template id 300 is already used at line 9",
         "t.yaml:15: " + groups + "[3]: entries is required"}},
       {"interfaces and VRFs",
        R"(interfaces:
  - { name: Ethernet1, index: 1 }
  - { name: Ethernet1, index: 0 }
  - { name: "", index: 1 }
vrfs:
  - { id: 1, name: blue }
  - { id: 1, name: blue }
  - { id: 16777215, name: x }
  - { id: 3, name: )" +
            Kel::String(101, 'v') + " }\n",
        {"t.yaml:3: interfaces[1].name: interface name \"Ethernet1\" is already used at line 2",
         "t.yaml:3: interfaces[1].index: interface index 0 is reserved for the interface table's "
         "\"unknown\" row",
         "t.yaml:4: interfaces[2].name: must not be empty",
         "t.yaml:4: interfaces[2].index: interface index 1 is already used at line 2",
         "t.yaml:7: vrfs[1].id: VRF id 1 is already used at line 6",
         "t.yaml:7: vrfs[1].name: VRF name \"blue\" is already used at line 6",
         "t.yaml:8: vrfs[2].id: VRF id 16777215 is reserved for the VRF table's unnamed row",
         "t.yaml:9: vrfs[3].name: must be at most 100 octets long, not 101"}},
       {"document structure",
        "statistics-table: a/b\nvrfs: []\nvrfs: []\nflow-tracking:\n  hardware:\n",
        {"t.yaml:1: statistics-table: must hold only letters, digits, '.', '_' and '-'",
         "t.yaml:3: vrfs: repeated key",
         "t.yaml:5: flow-tracking.hardware: must be a mapping, not empty"}},
       {"syntax error",
        "flow-tracking:\n  hardware: [1, 2\n",
        {"t.yaml:3: YAML syntax error: end of sequence flow not found"}},
       {"no document", "", {"t.yaml:1: must hold one YAML document, not 0"}},
       // The parser yields empty documents here without reading on: the
       // count stops, and the load ends instead of filling the memory.
       {"a document that never ends",
        ", f\x93\x90\xf5",
        {"t.yaml:1: must hold one YAML document, not 100 or more"}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      const auto result = Agent::parse(c.text, "t.yaml");
      EXPECT_EQ(errorTexts(result), c.errors);
      EXPECT_FALSE(result.config);
   }
}

// The values no process test reads back: the DSCP, the MTU, IPv4 collectors,
// interfaces and VRFs are checked through the agent (AgentProcessTest).
TEST(ConfigLoader, ReadsEveryValueAndFillsDefaults) {
   const auto result = Agent::parse(R"(statistics-table: lab.stats_1
flow-tracking:
  sampled:
    sample-rate: 1024
    trackers:
      - name: ft1
        id: 4294967295
        active-interval-ms: 60000
        inactive-timeout-ms: 5000
        exporters:
          - name: e1
            collectors: [ { name: c2, address: "2001:db8::2" } ]
            source-ipv6: "2001:db8::100"
            template-interval-ms: 1000
            vrf: blue
          - name: e2
        flow-groups:
          - template-id: 65531
            entries: 0
            fields: [ { element: innerSrcIp, flow-key: TRUE }, { element: "1", flow-key: false } ]
)",
                                    "t.yaml");
   ASSERT_EQ(errorTexts(result), std::vector<Kel::String>{});

   Agent::AgentConfig expected;
   expected.statisticsTable = "lab.stats_1";
   Agent::Exporter e1;
   e1.collectors["c2"] = {*Nivel::IpGenAddr::parse("2001:db8::2"), 4739};
   e1.srcIpv6 = Nivel::Ip6Addr::parse("2001:db8::100");
   e1.templateIntervalMs = 1000;
   e1.vrfName = "blue";
   Agent::Tracker ft1{4294967295u, 60000, 5000, {{"e1", e1}, {"e2", Agent::Exporter()}}, {}};
   ft1.flowGroups[65531] = {
       0, {{Ipfix::RecordType::innerSrcIp, true}, {Ipfix::RecordType::octetDeltaCount, false}}};
   expected.tracking[FlowTracking::FlowTrackingType::sampled] = {1024, {{"ft1", ft1}}};
   EXPECT_TRUE(*result.config == expected);

   const auto defaults = Agent::parse("flow-tracking: {}\n", "t.yaml");
   ASSERT_TRUE(defaults.config);
   EXPECT_TRUE(*defaults.config == Agent::AgentConfig{});
}

}  // namespace
