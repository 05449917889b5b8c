#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "Ipfix/OptionsData.h"
#include "Kel/Exception.h"

namespace {

using namespace FlowTracking;
using Log = std::vector<std::string>;

constexpr auto global = OptionsDataScope::scopeGlobal;
constexpr auto tracker = OptionsDataScope::scopeTracker;

DataRecordPtr rec(const std::string& octets) {
   return dataRecordFactory(octets);
}

std::string errorText(const std::function<void()>& f) {
   try {
      f();
   } catch (const std::exception& e) {
      return e.what();
   }
   return "(no error)";
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
       errorText([&] { update->addUpdate(302, nullptr); }),
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
       errorText([&] { source->dataRecordIs(nullptr); }),
       "null _dataRecord parameter to mutator for FlowTracking::OptionsDataSource::dataRecord "
       "not allowed");
}

TEST(OptionsDataSourceColl, SourceIsFindsOrCreatesAndRefusesAnotherSetId) {
   auto coll = Kel::makeActive<OptionsDataSourceColl>(tracker);
   auto keys = coll->sourceIs("flowKey", 0xFFFE);
   EXPECT_EQ(coll->sourceIs("flowKey", 0xFFFE), keys);
   EXPECT_EQ(errorText([&] { coll->sourceIs("flowKey", 0xFFFF); }),
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

// The single-object attributes of TrackerOptionsData and OptionsDataAll keep
// an object of the requested scope and replace one of another scope.
struct SlotCase {
   const char* name;
   std::function<const void*(OptionsDataScope)> is;
   std::function<void()> del;
   std::function<std::pair<const void*, OptionsDataScope>()> current;
   OptionsDataScope initialScope;
};

TEST(OptionsData, SingleObjectAttributesKeepOrReplaceByScope) {
   auto all = optionsDataAllFactory();
   auto td = all->trackerDataIs("ft1");
   Log log;
   class AllLog : public OptionsDataAll::Notifiee {
    public:
      explicit AllLog(Log* l) : log(l) {}
      void onGlobalData() override { log->push_back("globalData"); }
      void onGlobalUpdate() override { log->push_back("globalUpdate"); }
      Log* log;
   } allLog(&log);
   allLog.notifierIs(all);
   class TrackerLog : public TrackerOptionsData::Notifiee {
    public:
      explicit TrackerLog(Log* l) : log(l) {}
      void onData() override { log->push_back("data"); }
      void onUpdate() override { log->push_back("update"); }
      Log* log;
   } trackerLog(&log);
   trackerLog.notifierIs(td);

   auto scopeOf = [](const auto& p) {
      return std::pair<const void*, OptionsDataScope>(p.ptr(), p ? p->scope() : global);
   };
   const std::vector<SlotCase> cases = {
       {"data", [&](auto s) { return td->dataIs(s).ptr(); }, [&] { td->dataDel(); },
        [&] { return scopeOf(td->data()); }, tracker},
       {"update", [&](auto s) { return td->updateIs(s).ptr(); }, [&] { td->updateDel(); },
        [&] { return scopeOf(td->update()); }, tracker},
       {"globalData", [&](auto s) { return all->globalDataIs(s).ptr(); },
        [&] { all->globalDataDel(); }, [&] { return scopeOf(all->globalData()); }, global},
       {"globalUpdate", [&](auto s) { return all->globalUpdateIs(s).ptr(); },
        [&] { all->globalUpdateDel(); }, [&] { return scopeOf(all->globalUpdate()); }, global},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      const auto other = c.initialScope == global ? tracker : global;
      const auto [initial, initialScope] = c.current();
      ASSERT_TRUE(initial) << "created with its owner";
      EXPECT_EQ(initialScope, c.initialScope);

      log.clear();
      EXPECT_EQ(c.is(c.initialScope), initial);
      EXPECT_EQ(log, Log{}) << "same scope: kept, silent";

      const void* replaced = c.is(other);
      EXPECT_NE(replaced, initial);
      EXPECT_EQ(c.current(), std::make_pair(replaced, other));
      c.del();
      EXPECT_EQ(c.current().first, nullptr);
      EXPECT_NE(c.is(c.initialScope), nullptr);
      EXPECT_EQ(log, (Log{c.name, c.name, c.name}));
   }
}

TEST(OptionsDataAll, TrackerDataIsCreatedOnceWithItsTrackerScopeObjects) {
   auto all = optionsDataAllFactory();
   EXPECT_EQ(all->globalData()->scope(), global);
   EXPECT_EQ(all->globalUpdate()->scope(), global);
   Log log;
   class Observer : public OptionsDataAll::Notifiee {
    public:
      explicit Observer(Log* l) : log(l) {}
      void onTrackerData(const Kel::Name& name) override {
         log->push_back(name + (notifier()->trackerData(name) ? " present" : " gone"));
      }
      Log* log;
   } observer(&log);
   observer.notifierIs(all);

   auto td = all->trackerDataIs("ft1");
   EXPECT_EQ(all->trackerDataIs("ft1"), td);
   all->trackerDataIs("ft2");
   EXPECT_EQ(td->name(), "ft1");
   EXPECT_EQ(td->data()->scope(), tracker);
   EXPECT_EQ(td->update()->scope(), tracker);
   all->trackerDataDel("ft1");
   all->trackerDataDel("ft1");
   all->trackerDataDelAll();
   EXPECT_EQ(log, (Log{"ft1 present", "ft2 present", "ft1 gone", "ft2 gone"}));
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

   EXPECT_EQ(errorText([&] { container->dataIs(nullptr); }),
             "null _data parameter to mutator for FlowTracking::OptionsDataContainer::data not "
             "allowed");
   EXPECT_EQ(errorText([&] { container->updateIs(nullptr); }),
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

TEST(DataRecord, AppendGrowsTheOctetsAndNotifies) {
   auto r = dataRecordFactory("x");
   Log log;
   class Observer : public DataRecord::Notifiee {
    public:
      explicit Observer(Log* l) : log(l) {}
      void onData() override { log->push_back(std::to_string(notifier()->dataLen())); }
      Log* log;
   } observer(&log);
   observer.notifierIs(r);
   const Kel::U8 octets[] = {0, 0xFF, 'a'};
   r->append(octets, 3);
   r->append(octets, 0);
   r->append(octets + 2, 1);
   EXPECT_EQ(r->data(), std::string("x\0\xFF"
                                    "aa",
                                    5));
   EXPECT_EQ(log, (Log{"4", "5"}));
}

}  // namespace
