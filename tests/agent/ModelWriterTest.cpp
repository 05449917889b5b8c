#include <gtest/gtest.h>

#include "ConfigText.h"
#include "Ipfix/IpfixSm.h"
#include "agent/ModelWriter.h"

namespace {

using ConfigText::configOf;
using ConfigText::edited;
using FlowTracking::FlowTrackingType;
using Ipfix::RecordType;

const Kel::String base = R"(flow-tracking:
  hardware:
    trackers:
      - name: ft1
        id: 1
        exporters:
          - name: e1
            dscp: 0
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

// Ethernet1 and Ethernet2 exchange their indexes.
Kel::String swappedIndexes() {
   return edited(edited(edited(base, "index: 1 }", "index: 0x }"), "index: 2 }", "index: 1 }"),
                 "index: 0x }", "index: 2 }");
}

// Reloads that exercise every kind of change, each from `base`.
const std::vector<std::pair<const char*, Kel::String>>& variants() {
   static const std::vector<std::pair<const char*, Kel::String>> all = {
       {"exporter attributes",
        edited(base, "dscp: 0",
               "dscp: 46\n            mtu: 9000\n            source-ipv6: \"::1\"")},
       {"collector to the other family", edited(base, "address: 127.0.0.1", "address: \"::2\"")},
       {"collector renamed", edited(base, "name: c2", "name: c3")},
       {"exporter renamed", edited(base, "name: e1", "name: e2")},
       {"tracker id", edited(base, "id: 1\n", "id: 7\n")},
       {"tracker timers", edited(base, "id: 1\n", "id: 1\n        active-interval-ms: 2500\n")},
       {"fields",
        edited(base, "- octetDeltaCount",
               "- { element: innerSrcIp, flow-key: true }\n              - octetDeltaCount")},
       {"fewer fields", edited(base, "              - octetDeltaCount\n", "")},
       {"entries", edited(base, "entries: 10", "entries: 0")},
       {"template id", edited(base, "template-id: 256", "template-id: 4000")},
       {"interfaces swap indexes", swappedIndexes()},
       {"interface renamed onto the same index",
        edited(base, "name: Ethernet2", "name: Ethernet9")},
       {"VRF renamed", edited(base, "name: blue", "name: red")},
       {"tracker moves to the other type",
        edited(base, "  hardware:", "  sampled:\n    sample-rate: 100")},
       {"everything gone", "vrfs: []\n"},
   };
   return all;
}

class RecordingVrfSink : public Agent::VrfSink {
 public:
   void vrfIs(Kel::U32 id, const Kel::Name& name) override {
      calls.push_back(fmt::format("vrfIs {} {}", id, name));
      vrfs[id] = name;
   }
   void vrfDel(Kel::U32 id) override {
      calls.push_back(fmt::format("vrfDel {}", id));
      vrfs.erase(id);
   }
   std::vector<Kel::String> calls;
   std::map<Kel::U32, Kel::Name> vrfs;
};

// A model written by one writer, and its state as text.
struct Model {
   Model() : writer(catalogue(), interfaces, vrfs) {}

   static Kel::Ptr<const Ipfix::ElementIdColl> catalogue() {
      static const auto init = Ipfix::ipfixInitSmFactory();
      return init->elementIdCollection();
   }

   const Agent::TrackingModel& hardware() const { return writer.model(FlowTrackingType::hardware); }
   Kel::Ptr<HwFlowTracking::FtConfig> ft1() const { return hardware().config->hwFtConfig("ft1"); }
   Kel::Ptr<HwFlowTracking::FgStatus> fg(HwFlowTracking::TemplateId id) const {
      return hardware().status->hwFtStatus("ft1")->hwFgStatus(id);
   }

   // Everything the library could read, except flow groups' genId, which
   // counts the changes that led here.
   std::vector<Kel::String> dump() const {
      std::vector<Kel::String> lines;
      for (auto type : {FlowTrackingType::sampled, FlowTrackingType::hardware}) {
         const auto& m = writer.model(type);
         lines.push_back(fmt::format("type {} sampleRate {}", type, m.status->sampleRate()));
         for (const auto& [name, ft] : m.config->hwFtConfig()) {
            lines.push_back(fmt::format("tracker {} id {} active {} inactive {}", name, ft->ftId(),
                                        ft->activeInterval(), ft->inactiveTimeout()));
            for (const auto& [expName, e] : ft->expConfig()) {
               lines.push_back(fmt::format(
                   "exporter {} src {} {} dscp {} mtu {} template {} vrf {} resolved {}", expName,
                   e->srcIpAddr(), e->srcIp6Addr(), e->dscp(), e->ipfixMtu(), e->templateInterval(),
                   e->vrfName(), e->exporterResolved()));
               for (const auto& [c, addr] : e->collectorIpAndPort()) {
                  lines.push_back(fmt::format("collector {} {}", c, addr));
               }
               for (const auto& [c, addr] : e->collectorIp6AndPort()) {
                  lines.push_back(fmt::format("collector {} {}", c, addr));
               }
            }
         }
         for (const auto& [name, fts] : m.status->hwFtStatus()) {
            lines.push_back(fmt::format("status {} active {}s inactive {}s", name,
                                        fts->activeInterval(), fts->inactiveTimeout()));
            for (const auto& [id, group] : fts->hwFgStatus()) {
               lines.push_back(fmt::format("group {} fields {} entries {}", id, group->fieldCount(),
                                           group->entryCount()));
               for (const auto& [pos, f] : group->templateEntry()) {
                  lines.push_back(fmt::format("field {} {} len {} enterprise {} key {}", pos,
                                              f->fieldId(), f->fieldLen(), f->enterpriseIe(),
                                              f->flowKey()));
               }
            }
         }
      }
      for (const auto& [name, index] : interfaces->intfIndex()) {
         lines.push_back(fmt::format("interface {} -> {}", name, index));
      }
      for (const auto& [index, name] : interfaces->intfId()) {
         lines.push_back(fmt::format("index {} -> {}", index, name));
      }
      for (const auto& [id, name] : vrfs.vrfs) {
         lines.push_back(fmt::format("vrf {} {}", id, name));
      }
      return lines;
   }

   Kel::Ptr<FlowTracking::IntfIndexMap> interfaces = Kel::makeActive<FlowTracking::IntfIndexMap>();
   RecordingVrfSink vrfs;
   Agent::ModelWriter writer;
};

TEST(ModelWriter, FirstStartWritesEveryEntity) {
   Model m;
   m.writer.configIs(configOf(ConfigText::readFile(ConfigText::demoPath())));

   const auto& hw = m.hardware();
   EXPECT_EQ(hw.status->sampleRate(), 1u);
   const auto edge = hw.config->hwFtConfig("ft-edge");
   ASSERT_TRUE(edge);
   EXPECT_EQ(edge->ftId(), 101u);
   EXPECT_EQ(edge->activeInterval(), 300000u);
   EXPECT_EQ(hw.status->hwFtStatus("ft-edge")->activeInterval(), 300.0);
   EXPECT_EQ(hw.status->hwFtStatus("ft-edge")->inactiveTimeout(), 15.0);
   EXPECT_EQ(hw.status->hwFtStatus("ft-core")->activeInterval(), 60.0);

   const auto e = edge->expConfig("exp-local");
   ASSERT_TRUE(e);
   EXPECT_EQ(e->collectorIpAndPort().at("collector-v4"),
             *Nivel::IpAndPort::parse("127.0.0.1:4739"));
   EXPECT_EQ(e->collectorIp6AndPort().at("collector-v6"), *Nivel::Ip6AndPort::parse("[::1]:4740"));
   EXPECT_EQ(e->collectorIpAndPort().size() + e->collectorIp6AndPort().size(), 2u);
   EXPECT_EQ(e->srcIpAddr(), *Nivel::IpAddr::parse("127.0.0.1"));
   EXPECT_EQ(e->dscp(), 0xB8) << "dscp: 46 as the whole ToS byte";
   EXPECT_EQ(e->ipfixMtu(), 1500u);
   EXPECT_EQ(e->templateInterval(), 10000u);
   EXPECT_TRUE(e->exporterResolved());

   const auto fgStatus = hw.status->hwFtStatus("ft-edge")->hwFgStatus(257);
   ASSERT_TRUE(fgStatus);
   EXPECT_EQ(fgStatus->fieldCount(), 6u);
   EXPECT_EQ(fgStatus->templateEntry().size(), 6u);
   EXPECT_EQ(fgStatus->entryCount(), 1024u);
   const auto inner = fgStatus->templateEntry(0);
   EXPECT_EQ(inner->fieldId(), RecordType::innerSrcIp);
   EXPECT_TRUE(inner->enterpriseIe());
   EXPECT_EQ(inner->fieldLen(), 4u);
   EXPECT_TRUE(inner->flowKey());
   EXPECT_FALSE(fgStatus->templateEntry(5)->flowKey());
   EXPECT_FALSE(fgStatus->templateEntry(5)->enterpriseIe());
   EXPECT_EQ(hw.status->hwFtStatus("ft-edge")->hwFgStatus(258)->entryCount(), 0u);

   EXPECT_EQ(m.interfaces->intfIndex("Port-Channel10"), 1000010u);
   EXPECT_EQ(m.interfaces->intfId(1000010), "Port-Channel10");
   EXPECT_EQ(m.vrfs.calls, (std::vector<Kel::String>{"vrfIs 1 blue", "vrfIs 2 red"}));
   EXPECT_TRUE(m.writer.model(FlowTrackingType::sampled).config->hwFtConfig().empty());
}

TEST(ModelWriter, ReloadLeavesTheModelAsAFreshStartWould) {
   const auto demo = configOf(ConfigText::readFile(ConfigText::demoPath()));
   for (const auto& [name, text] : variants()) {
      SCOPED_TRACE(name);
      const auto variant = configOf(text);
      for (const auto& [from, to] : {std::pair{configOf(base), variant},
                                     {variant, configOf(base)},
                                     {demo, variant},
                                     {variant, demo}}) {
         Model reloaded;
         reloaded.writer.configIs(from);
         reloaded.writer.configIs(to);
         Model fresh;
         fresh.writer.configIs(to);
         EXPECT_EQ(reloaded.dump(), fresh.dump());
         EXPECT_TRUE(reloaded.writer.config() == to);
      }
   }
}

// Appends what each watched entity announces, with the entry's presence
// after the change and what a reader would find in it.
class Recorder {
 public:
   Recorder(const Model& m) {
      config_.log = status_.log = ft_.log = exporter_.log = fg_.log = intf_.log = &log;
      config_.notifierIs(m.hardware().config);
      status_.notifierIs(m.hardware().status);
      ft_.notifierIs(m.ft1());
      exporter_.notifierIs(m.ft1()->expConfig("e1"));
      fg_.notifierIs(m.fg(256));
      intf_.notifierIs(m.interfaces);
   }
   std::vector<Kel::String> log;

 private:
   struct ConfigReactor : HwFlowTracking::Config::Notifiee {
      void onHwFtConfig(const Kel::Name& name) override {
         const auto ft = notifier()->hwFtConfig(name);
         log->push_back(ft ? fmt::format("config +{} id {}, {} exporters", name, ft->ftId(),
                                         ft->expConfig().size())
                           : "config -" + name);
      }
      std::vector<Kel::String>* log;
   };
   struct StatusReactor : HwFlowTracking::Status::Notifiee {
      void onHwFtStatus(const Kel::Name& name) override {
         const auto fts = notifier()->hwFtStatus(name);
         log->push_back(
             fts ? fmt::format("status +{}, {} flow groups", name, fts->hwFgStatus().size())
                 : "status -" + name);
      }
      std::vector<Kel::String>* log;
   };
   struct FtReactor : HwFlowTracking::FtConfig::Notifiee {
      void onExpConfig(const Kel::Name& name) override {
         const auto e = notifier()->expConfig(name);
         log->push_back(e ? fmt::format("ft1 +{} resolved {}, {} collectors", name,
                                        e->exporterResolved(), e->collectorIpAndPort().size())
                          : "ft1 -" + name);
      }
      std::vector<Kel::String>* log;
   };
   struct ExporterReactor : HwFlowTracking::ExporterConfig::Notifiee {
      void onCollectorIpAndPort(const Kel::String& name) override {
         log->push_back(
             (notifier()->collectorIpAndPort().contains(name) ? "e1 ipv4 +" : "e1 ipv4 -") + name);
      }
      void onCollectorIp6AndPort(const Kel::String& name) override {
         log->push_back(
             (notifier()->collectorIp6AndPort().contains(name) ? "e1 ipv6 +" : "e1 ipv6 -") + name);
      }
      void onDscp() override { log->push_back(fmt::format("e1 dscp {}", notifier()->dscp())); }
      std::vector<Kel::String>* log;
   };
   struct FgReactor : HwFlowTracking::FgStatus::Notifiee {
      void onTemplateEntry(Kel::U32 position) override {
         const auto f = notifier()->templateEntry(position);
         log->push_back(f ? fmt::format("fg +{} {}", position, f->fieldId())
                          : fmt::format("fg -{}", position));
      }
      void onFieldCount() override {
         log->push_back(fmt::format("fg fieldCount {}", notifier()->fieldCount()));
      }
      void onEntryCount() override {
         log->push_back(fmt::format("fg entryCount {}", notifier()->entryCount()));
      }
      void onGenId() override { log->push_back(fmt::format("fg genId {}", notifier()->genId())); }
      std::vector<Kel::String>* log;
   };
   struct IntfReactor : FlowTracking::IntfIndexMap::Notifiee {
      void onIntfIndex(const Nivel::IntfId& name) override {
         const auto index = notifier()->intfIndex(name);
         log->push_back(index ? fmt::format("{} -> {}", name, *index) : name + " -> none");
      }
      void onIntfId(Kel::U32 index) override {
         const auto name = notifier()->intfId(index);
         log->push_back(name ? fmt::format("{} -> {}", index, *name)
                             : fmt::format("{} -> none", index));
      }
      std::vector<Kel::String>* log;
   };

   ConfigReactor config_;
   StatusReactor status_;
   FtReactor ft_;
   ExporterReactor exporter_;
   FgReactor fg_;
   IntfReactor intf_;
};

TEST(ModelWriter, ReactorsSeeChangesInTheOrderTheLibraryNeeds) {
   const struct {
      const char* name;
      Kel::String after;
      std::vector<Kel::String> log;
   } cases[] = {
       {"a new tracker id: removed first, status before configuration when added",
        edited(base, "id: 1\n", "id: 2\n"),
        {"config -ft1", "status -ft1", "status +ft1, 1 flow groups",
         "config +ft1 id 2, 1 exporters"}},
       {"a collector's name stays configured while it changes family",
        edited(base, "address: 127.0.0.1", "address: \"::2\""),
        {"e1 ipv6 +c1", "e1 ipv4 -c1"}},
       {"a renamed exporter is complete when it appears",
        edited(base, "name: e1", "name: e2"),
        {"ft1 -e1", "ft1 +e2 resolved true, 1 collectors"}},
       {"the DSCP as the ToS byte", edited(base, "dscp: 0", "dscp: 46"), {"e1 dscp 184"}},
       {"fields first, the new generation last",
        edited(base, "- octetDeltaCount", "- packetDeltaCount\n              - octetDeltaCount"),
        {"fg -1", "fg +1 packetDeltaCount", "fg +2 octetDeltaCount", "fg fieldCount 3",
         "fg genId 1"}},
       {"fewer fields",
        edited(base, "              - octetDeltaCount\n", ""),
        {"fg -1", "fg fieldCount 1", "fg genId 1"}},
       {"entries alone", edited(base, "entries: 10", "entries: 0"), {"fg entryCount 0"}},
       {"interfaces swap indexes: neither removes the other's entry",
        swappedIndexes(),
        {"Ethernet1 -> none", "1 -> none", "2 -> Ethernet1", "Ethernet1 -> 2", "Ethernet2 -> none",
         "1 -> Ethernet2", "Ethernet2 -> 1"}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      Model m;
      m.writer.configIs(configOf(base));
      Recorder recorder(m);
      m.writer.configIs(configOf(c.after));
      EXPECT_EQ(recorder.log, c.log);
   }
}

TEST(ModelWriter, VrfsGoToTheSink) {
   Model m;
   m.writer.configIs(configOf(base));
   m.writer.configIs(
       configOf(edited(base, "name: blue }", "name: red }\n  - { id: 7, name: blue }")));
   m.writer.configIs(configOf("vrfs: [{ id: 7, name: blue }]\n"));
   EXPECT_EQ(m.vrfs.calls,
             (std::vector<Kel::String>{"vrfIs 1 blue", "vrfIs 1 red", "vrfIs 7 blue", "vrfDel 1"}));
}

}  // namespace
