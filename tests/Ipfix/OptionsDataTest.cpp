#include <gtest/gtest.h>

#include <functional>

#include "Ipfix/OptionsData.h"
#include "support/ThrownText.h"

namespace {

using namespace FlowTracking;
using Log = std::vector<std::string>;

constexpr auto global = OptionsDataScope::scopeGlobal;

DataRecordPtr rec(const std::string& octets) {
   return dataRecordFactory(octets);
}

// An observer that logs what it is told, reading the source as it goes.
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

}  // namespace
