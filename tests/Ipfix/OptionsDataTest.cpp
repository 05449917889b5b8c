#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "Ipfix/OptionsData.h"
#include "support/ThrownText.h"

namespace {

using namespace FlowTracking;
using Log = std::vector<std::string>;

constexpr auto global = OptionsDataScope::scopeGlobal;
constexpr auto tracker = OptionsDataScope::scopeTracker;

DataRecordPtr rec(const std::string& octets) {
   return dataRecordFactory(octets);
}

// Observers that log what they are told, reading the entity as they go.
class SourceLog : public OptionsDataSource::Notifiee {
 public:
   SourceLog(const Kel::Ptr<OptionsDataSource>& s, Log* log) : log_(log) { notifierIs(s); }
   void onDataRecord(const DataRecordPtr& r) override {
      log_->push_back((notifier()->dataRecord().contains(r) ? "+" : "-") + r->data());
   }
   void onVersion() override { log_->push_back(fmt::format("v{}", notifier()->version())); }

 private:
   Log* log_;
};

class UpdateLog : public OptionsDataUpdate::Notifiee {
 public:
   UpdateLog(const Kel::Ptr<OptionsDataUpdate>& u, Log* log) : log_(log) { notifierIs(u); }
   void onDataSetId() override { log_->push_back("dataSetId"); }
   void onDataRecord() override { log_->push_back("dataRecord"); }
   // What an exporter does: read the pair when the version moves.
   void onVersion() override {
      const auto& u = *notifier();
      log_->push_back(fmt::format("v{} {} {}", u.version(), u.dataSetId(), u.dataRecord()->data()));
   }

 private:
   Log* log_;
};

TEST(OptionsDataScope, NamesAndParser) {
   for (const auto& [scope, name] : {std::pair{global, "scopeGlobal"}, {tracker, "scopeTracker"}}) {
      EXPECT_EQ(valueToStrep(scope), name);
      EXPECT_EQ(fmt::format("{}", scope), name);
      std::ostringstream os;
      os << scope;
      EXPECT_EQ(os.str(), name);
      EXPECT_EQ(parseOptionsDataScope(name), scope);
   }
   EXPECT_EQ(parseOptionsDataScope("scopeLocal"), std::nullopt);
   EXPECT_EQ(parseOptionsDataScope("ScopeGlobal"), std::nullopt);
   EXPECT_EQ(stringValue(OptionsDataScope(7)), "7");
}

TEST(OptionsDataUpdate, EachUpdateWritesThePairThenMovesTheVersion) {
   auto all = optionsDataAllFactory();
   const auto& update = all->globalUpdate();
   EXPECT_EQ(update->dataSetId(), 0xFFFF);
   EXPECT_FALSE(update->dataRecord());
   Log log;
   UpdateLog observer(update, &log);

   auto first = rec("first");
   update->addUpdate(300, first);
   update->addUpdate(301, rec("second"));
   update->addUpdate(301, update->dataRecord());  // the same pair again: only the version moves
   EXPECT_EQ(log, (Log{"dataSetId", "dataRecord", "v1 300 first", "dataSetId", "dataRecord",
                       "v2 301 second", "v3 301 second"}));
   EXPECT_EQ(first->references(), 1u) << "the update keeps only the latest record";

   log.clear();
   EXPECT_EQ(
       thrownText<Kel::Exception>([&] { update->addUpdate(302, nullptr); }),
       "null _dataRecord parameter to mutator for FlowTracking::OptionsDataUpdate::dataRecord "
       "not allowed");
   EXPECT_TRUE(log.empty());
   EXPECT_EQ(update->dataSetId(), 301);
   EXPECT_EQ(update->version(), 3u);
}

TEST(OptionsDataSource, RecordsByIdentityAndVersionNotifyOnlyOnChange) {
   auto coll = Kel::makeActive<OptionsDataSourceColl>(global);
   auto source = coll->sourceIs("intfTable", 0xFFFD);
   Log log;
   SourceLog observer(source, &log);

   auto a = rec("a");
   const struct {
      const char* action;
      std::function<void()> run;
      Log logged;
   } steps[] = {
       {"add", [&] { source->dataRecordIs(a); }, {"+a"}},
       {"add the same pointer again", [&] { source->dataRecordIs(a); }, {}},
       {"add equal octets as another record", [&] { source->dataRecordIs(rec("a")); }, {"+a"}},
       {"remove an absent record", [&] { source->dataRecordDel(rec("b")); }, {}},
       {"replace a record the way a writer does",
        [&] {
           source->dataRecordDel(a);
           source->dataRecordIs(rec("c"));
           source->versionInc(1);
        },
        {"-a", "+c", "v1"}},
       {"versionInc(0)", [&] { source->versionInc(0); }, {}},
       {"versionIs the current value", [&] { source->versionIs(1); }, {}},
       {"versionInc(2)", [&] { source->versionInc(2); }, {"v3"}},
   };
   for (const auto& s : steps) {
      SCOPED_TRACE(s.action);
      log.clear();
      s.run();
      EXPECT_EQ(log, s.logged);
   }
   EXPECT_EQ(source->dataRecord().size(), 2u);
   EXPECT_EQ(source->version(), 3u);

   log.clear();
   source->dataRecordDelAll();
   std::sort(log.begin(), log.end());
   EXPECT_EQ(log, (Log{"-a", "-c"}));
   EXPECT_EQ(
       thrownText<Kel::Exception>([&] { source->dataRecordIs(nullptr); }),
       "null _dataRecord parameter to mutator for FlowTracking::OptionsDataSource::dataRecord "
       "not allowed");
}

TEST(OptionsDataSourceColl, SourceIsFindsOrCreatesAndRefusesAnotherSetId) {
   auto coll = Kel::makeActive<OptionsDataSourceColl>(tracker);
   auto keys = coll->sourceIs("flowKey", 0xFFFE);
   EXPECT_EQ(coll->sourceIs("flowKey", 0xFFFE), keys);
   EXPECT_EQ(thrownText<Kel::Exception>([&] { coll->sourceIs("flowKey", 0xFFFF); }),
             "Reinstantiating the pointer interface where constructor parameter attribute "
             "_dataSetId has a different value of 65535 than the current value of 65534 not "
             "allowed");
   EXPECT_EQ(coll->source("flowKey"), keys);

   auto r = rec("k");
   keys->dataRecordIs(r);
   keys = nullptr;
   coll->sourceDel("flowKey");
   EXPECT_FALSE(coll->source("flowKey"));
   EXPECT_EQ(r->references(), 1u) << "deleting a source drops its records";
}

// Logs the attributes of the tree's root and of one tracker's data.
class TreeLog : public OptionsDataAll::Notifiee {
 public:
   explicit TreeLog(Log* l) : log(l) {}
   void onGlobalData() override { log->push_back("globalData"); }
   void onGlobalUpdate() override { log->push_back("globalUpdate"); }
   void onTrackerData(const Kel::Name& name) override {
      log->push_back(name + (notifier()->trackerData(name) ? " present" : " gone"));
   }
   Log* log;
};
class TrackerLog : public TrackerOptionsData::Notifiee {
 public:
   explicit TrackerLog(Log* l) : log(l) {}
   void onData() override { log->push_back("data"); }
   void onUpdate() override { log->push_back("update"); }
   Log* log;
};

TEST(OptionsDataAll, TrackerDataIsCreatedOnceWithItsTrackerScopeObjects) {
   auto all = optionsDataAllFactory();
   Log log;
   TreeLog observer(&log);
   observer.notifierIs(all);

   auto td = all->trackerDataIs("ft1");
   EXPECT_EQ(all->trackerDataIs("ft1"), td);
   all->trackerDataIs("ft2");
   EXPECT_EQ(td->data()->scope(), tracker);
   EXPECT_EQ(td->update()->scope(), tracker);
   all->trackerDataDel("ft1");
   all->trackerDataDel("ft1");
   all->trackerDataDelAll();
   EXPECT_EQ(log, (Log{"ft1 present", "ft2 present", "ft1 gone", "ft2 gone"}));
}

// The single-object attributes keep an object of the requested scope and
// replace one of another scope.
TEST(OptionsData, SingleObjectAttributesKeepOrReplaceByScope) {
   auto all = optionsDataAllFactory();
   auto td = all->trackerDataIs("ft1");
   Log log;
   TreeLog allLog(&log);
   allLog.notifierIs(all);
   TrackerLog trackerLog(&log);
   trackerLog.notifierIs(td);

   // Each row: the creator (object and its scope), the remover, the object now held.
   using Held = std::pair<const void*, OptionsDataScope>;
   const auto held = [](const auto& p) { return Held(p.ptr(), p->scope()); };
   const struct {
      const char* name;
      std::function<Held(OptionsDataScope)> is;
      std::function<void()> del;
      std::function<const void*()> current;
      OptionsDataScope initialScope;
   } cases[] = {
       {"data", [&](auto s) { return held(td->dataIs(s)); }, [&] { td->dataDel(); },
        [&] { return td->data().ptr(); }, tracker},
       {"update", [&](auto s) { return held(td->updateIs(s)); }, [&] { td->updateDel(); },
        [&] { return td->update().ptr(); }, tracker},
       {"globalData", [&](auto s) { return held(all->globalDataIs(s)); },
        [&] { all->globalDataDel(); }, [&] { return all->globalData().ptr(); }, global},
       {"globalUpdate", [&](auto s) { return held(all->globalUpdateIs(s)); },
        [&] { all->globalUpdateDel(); }, [&] { return all->globalUpdate().ptr(); }, global},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      const auto other = c.initialScope == global ? tracker : global;
      const void* initial = c.current();
      log.clear();
      EXPECT_EQ(c.is(c.initialScope), Held(initial, c.initialScope)) << "created with its owner";
      EXPECT_EQ(log, Log{}) << "same scope: kept, silent";

      const Held replaced = c.is(other);
      EXPECT_NE(replaced.first, initial);
      EXPECT_EQ(replaced, Held(c.current(), other));
      c.del();
      EXPECT_EQ(c.current(), nullptr);
      EXPECT_EQ(c.is(c.initialScope).second, c.initialScope);
      EXPECT_EQ(log, (Log{c.name, c.name, c.name}));
   }
}

TEST(OptionsDataContainer, HoldsBothScopesOfOneTrackerByTheirOwnScope) {
   auto all = optionsDataAllFactory();
   auto td = all->trackerDataIs("ft1");
   auto container = optionsDataContainerFactory("ft1");
   Log log;
   class Observer : public OptionsDataContainer::Notifiee {
    public:
      explicit Observer(Log* l) : log(l) {}
      void onData(OptionsDataScope s) override { log->push_back(fmt::format("data {}", s)); }
      void onUpdate(OptionsDataScope s) override { log->push_back(fmt::format("update {}", s)); }
      Log* log;
   } observer(&log);
   observer.notifierIs(container);

   EXPECT_EQ(thrownText<Kel::Exception>([&] { container->dataIs(nullptr); }),
             "null _data parameter to mutator for FlowTracking::OptionsDataContainer::data not "
             "allowed");
   EXPECT_EQ(thrownText<Kel::Exception>([&] { container->updateIs(nullptr); }),
             "null _update parameter to mutator for FlowTracking::OptionsDataContainer::update not "
             "allowed");
   EXPECT_TRUE(container->data().empty());
   EXPECT_TRUE(container->update().empty());
   EXPECT_FALSE(container->data(global));

   container->dataIs(all->globalData());
   container->dataIs(td->data());
   container->updateIs(td->update());
   container->updateIs(all->globalUpdate());
   container->dataIs(td->data());  // already there: silent
   EXPECT_EQ(container->data(global), all->globalData());
   EXPECT_EQ(container->data(tracker), td->data());
   EXPECT_EQ(container->update(global), all->globalUpdate());
   EXPECT_EQ(container->update(tracker), td->update());

   // A replaced tracker collection takes the place of the old one.
   container->dataIs(td->dataIs(global));
   EXPECT_EQ(container->data(global), td->data());
   container->dataDel(tracker);
   container->updateDelAll();
   EXPECT_EQ(container->data().size(), 1u);
   EXPECT_EQ(log, (Log{"data scopeGlobal", "data scopeTracker", "update scopeTracker",
                       "update scopeGlobal", "data scopeGlobal", "data scopeTracker",
                       "update scopeGlobal", "update scopeTracker"}));
}

}  // namespace
