#include <gtest/gtest.h>

#include "ConfigText.h"
#include "agent/ConfigLoader.h"

namespace {

using ConfigText::edited;

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
       {"dscp above 63",
        exporterHead + "            dscp: 70\n",
        {e + ".dscp: must be a DSCP code point from 0 to 63, not 70"}},
       {"mtu below one record",
        exporterHead + "            mtu: 172\n",
        {e + ".mtu: must be an MTU in octets (room for one record) from 173 to 65535, not 172"}},
       {"mtu above 16 bits",
        exporterHead + "            mtu: 65536\n",
        {e + ".mtu: must be an MTU in octets (room for one record) from 173 to 65535, not 65536"}},
       {"template interval below a second",
        exporterHead + "            template-interval-ms: 999\n",
        {e + ".template-interval-ms: must be a time in milliseconds from 1000 to 4294967295, not "
             "999"}},
       {"source addresses of the wrong family",
        exporterHead + "            source-ipv4: \"::1\"\n            source-ipv6: 10.0.0.1\n",
        {e + ".source-ipv4: must be an IPv4 address, not \"::1\"",
         "t.yaml:9: " + exporterPath + ".source-ipv6: must be an IPv6 address, not 10.0.0.1"}},
       {"empty VRF name",
        exporterHead + "            vrf: \"\"\n",
        {e + ".vrf: must not be empty"}},
       {"unknown key and wrong type",
        exporterHead + "            colour: red\n            collectors: {}\n",
        {e + ".colour: unknown key (expected one of: name, collectors, source-ipv4, source-ipv6, "
             "dscp, mtu, template-interval-ms, vrf)",
         "t.yaml:9: " + exporterPath + ".collectors: must be a list, not a mapping"}},
       {"exporter name too long, missing and repeated",
        trackerHead + "        exporters:\n          - name: " + Kel::String(64, 'x') +
            "\n          - dscp: 1\n          - name: e1\n          - name: e1\n",
        {"t.yaml:7: " + exporterPath + ".name: must be at most 63 octets long, not 64",
         "t.yaml:8: flow-tracking.hardware.trackers[0].exporters[1]: name is required",
         "t.yaml:10: flow-tracking.hardware.trackers[0].exporters[3].name: exporter name \"e1\" "
         "is already used at line 9"}},
       {"collectors",
        exporterHead + R"(            collectors:
              - { name: c1, address: 127.0.0.1, port: 0 }
              - { name: c1, address: 1.2.3, port: 70000 }
              - { name: c3, address: 127.0.0.1 }
              - { name: c4, address: 127.0.0.1, port: 4739 }
              - { address: "::1" }
)",
        {"t.yaml:9: " + exporterPath +
             ".collectors[0].port: must be a UDP port from 1 to 65535, not 0",
         "t.yaml:10: " + exporterPath +
             ".collectors[1].name: collector name \"c1\" is already used at line 9",
         "t.yaml:10: " + exporterPath +
             ".collectors[1].address: must be an IPv4 or IPv6 address, not 1.2.3",
         "t.yaml:10: " + exporterPath +
             ".collectors[1].port: must be a UDP port from 1 to 65535, not 70000",
         "t.yaml:12: " + exporterPath +
             ".collectors[3].address: address 127.0.0.1 port 4739 is already used at line 11",
         "t.yaml:13: " + exporterPath + ".collectors[4]: name is required"}},
       {"tracker timers",
        trackerHead + "        active-interval-ms: 500\n        inactive-timeout-ms: 65535000\n",
        {"t.yaml:6: flow-tracking.hardware.trackers[0].active-interval-ms: must be a time in "
         "milliseconds from 1000 to 65534000, not 500",
         "t.yaml:7: flow-tracking.hardware.trackers[0].inactive-timeout-ms: must be a time in "
         "milliseconds from 1000 to 65534000, not 65535000"}},
       {"tracker ids and names",
        R"(flow-tracking:
  hardware:
    trackers:
      - name: ft1
        id: -1
      - name: ft2
        id: 7
      - name: ft3
        id: 7
      - name: ft1
        id: 8
      - id: 9
)",
        {"t.yaml:5: flow-tracking.hardware.trackers[0].id: must be a tracker id from 0 to "
         "4294967295, not -1",
         "t.yaml:9: flow-tracking.hardware.trackers[2].id: tracker id 7 is already used at line 7",
         "t.yaml:10: flow-tracking.hardware.trackers[3].name: tracker name \"ft1\" is already "
         "used at line 4",
         "t.yaml:12: flow-tracking.hardware.trackers[4]: name is required"}},
       {"tracker names are unique across types, ids only within one",
        R"(flow-tracking:
  hardware:
    trackers:
      - { name: ft1, id: 1 }
  sampled:
    sample-rate: 0
    trackers:
      - { name: ft1, id: 1 }
  netflow: {}
)",
        {"t.yaml:6: flow-tracking.sampled.sample-rate: must be a sampling rate (one packet in N) "
         "from 1 to 4294967295, not 0",
         "t.yaml:8: flow-tracking.sampled.trackers[0].name: tracker name \"ft1\" is already used "
         "at line 4",
         "t.yaml:9: flow-tracking.netflow: unknown key (expected one of: hardware, sampled)"}},
       {"flow groups",
        trackerHead + R"(        flow-groups:
          - template-id: 255
            entries: 1
            fields: [octetDeltaCount]
          - template-id: 65533
            entries: 1
            fields: []
          - template-id: 300
            entries: many
            fields:
              - fooBar
              - { element: 99999, flow-key: yes }
              - { flow-key: true }
              - [octetDeltaCount]
          - template-id: 300
            fields:
              - octetDeltaCount
)",
        {"t.yaml:7: " + groups +
             "[0].template-id: must be a data template id from 256 to 65531, not 255",
         "t.yaml:10: " + groups +
             "[1].template-id: template id 65533 is reserved for the options templates; data "
             "template ids run from 256 to 65531",
         "t.yaml:12: " + groups + "[1].fields: must list at least one field",
         "t.yaml:14: " + groups +
             "[2].entries: must be an entry count from 0 to 4294967295, not "
             "\"many\"",
         "t.yaml:16: " + groups + "[2].fields[0]: unknown information element \"fooBar\"",
         "t.yaml:17: " + groups + "[2].fields[1].element: unknown information element 99999",
         "t.yaml:17: " + groups + "[2].fields[1].flow-key: must be true or false, not \"yes\"",
         "t.yaml:18: " + groups + "[2].fields[2]: element is required",
         "t.yaml:19: " + groups + "[2].fields[3]: must be an element name or a mapping, not a list",
         "t.yaml:20: " + groups + "[3].template-id: template id 300 is already used at line 13",
         "t.yaml:20: " + groups + "[3]: entries is required"}},
       {"interfaces and VRFs",
        R"(interfaces:
  - { name: Ethernet1, index: 1 }
  - { name: Ethernet1, index: 0 }
  - { name: "", index: 1 }
  - { name: Ethernet3 }
  - name: Ethernet4
    index: 1073741824
vrfs:
  - { id: 1, name: blue }
  - { id: 1, name: blue }
  - { id: 16777215, name: x }
  - { id: 3, name: )" +
            Kel::String(101, 'v') +
            R"( }
  - blue
)",
        {"t.yaml:3: interfaces[1].name: interface name \"Ethernet1\" is already used at line 2",
         "t.yaml:3: interfaces[1].index: interface index 0 is reserved for the interface table's "
         "\"unknown\" row",
         "t.yaml:4: interfaces[2].name: must not be empty",
         "t.yaml:4: interfaces[2].index: interface index 1 is already used at line 2",
         "t.yaml:5: interfaces[3]: index is required",
         "t.yaml:7: interfaces[4].index: interface index 1073741824 is reserved for the interface "
         "table's \"discard\" row",
         "t.yaml:10: vrfs[1].id: VRF id 1 is already used at line 9",
         "t.yaml:10: vrfs[1].name: VRF name \"blue\" is already used at line 9",
         "t.yaml:11: vrfs[2].id: VRF id 16777215 is reserved for the VRF table's unnamed row",
         "t.yaml:12: vrfs[3].name: must be at most 100 octets long, not 101",
         "t.yaml:13: vrfs[4]: must be a mapping, not \"blue\""}},
       {"document structure",
        "statistics-table: a/b\nvrfs: []\nvrfs: []\nflow-tracking:\n  hardware:\n",
        {"t.yaml:1: statistics-table: must hold only letters, digits, '.', '_' and '-'",
         "t.yaml:3: vrfs: repeated key",
         "t.yaml:5: flow-tracking.hardware: must be a mapping, not empty"}},
       {"syntax error",
        "flow-tracking:\n  hardware: [1, 2\n",
        {"t.yaml:3: YAML syntax error: end of sequence flow not found"}},
       {"top level is a list", "- 1\n", {"t.yaml:1: must be a mapping, not a list"}},
       {"no document", "", {"t.yaml:1: must hold one YAML document, not 0"}},
       {"two documents",
        "vrfs: []\n---\nvrfs: []\n",
        {"t.yaml:1: must hold one YAML document, not 2"}},
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
            collectors:
              - { name: c1, address: 192.0.2.1, port: 2055 }
              - { name: c2, address: "2001:db8::2" }
            source-ipv4: 192.0.2.100
            source-ipv6: "2001:db8::100"
            dscp: 63
            mtu: 173
            template-interval-ms: 1000
            vrf: blue
          - name: e2
        flow-groups:
          - template-id: 65531
            entries: 0
            fields:
              - { element: innerSrcIp, flow-key: TRUE }
              - { element: "1", flow-key: false }
              - packetDeltaCount
  hardware: { trackers: [] }
interfaces:
  - { name: Ethernet1, index: 4294967295 }
vrfs:
  - { id: 0, name: default }
)",
                                    "t.yaml");
   ASSERT_EQ(errorTexts(result), std::vector<Kel::String>{});

   Agent::AgentConfig expected;
   expected.statisticsTable = "lab.stats_1";
   Agent::Exporter e1;
   e1.collectors["c1"] = {*Nivel::IpGenAddr::parse("192.0.2.1"), 2055};
   e1.collectors["c2"] = {*Nivel::IpGenAddr::parse("2001:db8::2"), 4739};
   e1.srcIpv4 = Nivel::IpAddr::parse("192.0.2.100");
   e1.srcIpv6 = Nivel::Ip6Addr::parse("2001:db8::100");
   e1.dscp = 63;
   e1.mtu = 173;
   e1.templateIntervalMs = 1000;
   e1.vrfName = "blue";
   Agent::Tracker ft1;
   ft1.id = 4294967295u;
   ft1.activeIntervalMs = 60000;
   ft1.inactiveTimeoutMs = 5000;
   ft1.exporters = {{"e1", e1}, {"e2", Agent::Exporter()}};
   ft1.flowGroups[65531] = {0,
                            {{Ipfix::RecordType::innerSrcIp, true},
                             {Ipfix::RecordType::octetDeltaCount, false},
                             {Ipfix::RecordType::packetDeltaCount, false}}};
   auto& sampled = expected.tracking[FlowTracking::FlowTrackingType::sampled];
   sampled.sampleRate = 1024;
   sampled.trackers["ft1"] = ft1;
   expected.tracking[FlowTracking::FlowTrackingType::hardware] = {};
   expected.interfaces["Ethernet1"] = 4294967295u;
   expected.vrfs[0] = "default";
   EXPECT_TRUE(*result.config == expected);

   const auto defaults = Agent::parse("flow-tracking: {}\n", "t.yaml");
   ASSERT_TRUE(defaults.config);
   EXPECT_EQ(defaults.config->statisticsTable, "ipfix-collector-stats");
   EXPECT_TRUE(defaults.config->tracking.empty());
}

// What the demo file turns into is checked by the model writer's tests.
TEST(ConfigLoader, DemoLoadsAndItsDocumentedErrorIsExact) {
   ASSERT_EQ(errorTexts(Agent::load(ConfigText::demoPath())), std::vector<Kel::String>{});

   // The file's header quotes the error an operator gets for "dscp: 70".
   const Kel::String text = ConfigText::readFile(ConfigText::demoPath());
   const auto quoteStart = text.find("\"demo.yaml:") + 1;
   Kel::String quoted = text.substr(quoteStart, text.find('"', quoteStart) - quoteStart);
   quoted = edited(quoted, "\n# ", " ");
   EXPECT_EQ(errorTexts(Agent::parse(edited(text, "dscp: 46", "dscp: 70"), "demo.yaml")),
             std::vector<Kel::String>{quoted});
}

TEST(ConfigLoader, UnreadableFileIsOneError) {
   EXPECT_EQ(errorTexts(Agent::load("/nonexistent/agent.yaml")),
             std::vector<Kel::String>{"/nonexistent/agent.yaml: cannot read: No such file or "
                                      "directory"});
}

// Whatever a line of a valid file is turned into, the loader answers with a
// configuration or with errors, never both, never neither, never a crash.
TEST(ConfigLoader, DamagedFilesGiveErrorsNeverACrash) {
   const Kel::String demo = ConfigText::readFile(ConfigText::demoPath());
   std::vector<Kel::String> lines;
   std::istringstream in(demo);
   for (Kel::String line; std::getline(in, line);) {
      lines.push_back(line);
   }
   const Kel::String replacements[] = {
       "[]", "{}",      "-1",          "x",         "99999999999999999999",
       "",   "*anchor", "[1, {a: b}]", "\"\\x00\"", ": :"};
   int damaged = 0;
   for (std::size_t i = 0; i < lines.size(); ++i) {
      const auto colon = lines[i].find(": ");
      std::vector<Kel::String> variants{""};  // the line removed
      for (const auto& r : replacements) {
         variants.push_back(colon == Kel::String::npos ? lines[i] + r
                                                       : lines[i].substr(0, colon + 2) + r);
      }
      for (const auto& variant : variants) {
         Kel::String text;
         for (std::size_t j = 0; j < lines.size(); ++j) {
            text += (j == i ? variant : lines[j]) + "\n";
         }
         Agent::LoadResult result;
         ASSERT_NO_THROW(result = Agent::parse(text, "demo.yaml")) << "line " << i + 1;
         ASSERT_NE(result.config.has_value(), !result.errors.empty()) << "line " << i + 1;
         for (const auto& e : result.errors) {
            ASSERT_EQ(e.fileName, "demo.yaml");
            ASSERT_GE(e.line, 1) << e.str();
         }
         damaged += result.errors.empty() ? 0 : 1;
      }
   }
   EXPECT_GT(damaged, static_cast<int>(lines.size()));
}

}  // namespace
