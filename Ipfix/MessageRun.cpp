#include "Ipfix/MessageRun.h"

#include "Kel/Trace.h"

namespace FlowTracking {

namespace {

Kel::TraceHandle traceIpfix("Ipfix");

// Runs are shared between trackers: each send stamps its own observation
// domain over this one.
constexpr Kel::U32 stampedPerDestination = 0;

}  // namespace

MessageRun::MessageRun(const OptionsDataSourceColl& coll, Kel::U16 maxSize,
                       Kel::Ptr<const MessageRun> before, Kel::Ptr<MessageRunCache> cache)
    : maxSize_(maxSize), before_(std::move(before)), cache_(std::move(cache)) {
   BuilderWrapper builder;
   builder.builderIs(maxSize_, stampedPerDestination);
   builder.startMsg();
   const auto add = [&](TemplateId setId, const DataRecordPtr& record) {
      builder.addRecord(setId, record, [&](Kel::Ptr<MessageWrapper> full) {
         messages_.push_back(std::move(full));
         open_.clear();
      });
      open_.push_back({setId, record});
   };
   if (before_) {
      for (const OpenRecord& r : before_->open()) {
         add(r.setId, r.record);
      }
   }
   for (const auto& [sourceName, source] : coll.source()) {
      sources_.push_back({source, source->version()});
      for (const DataRecordPtr& record : source->dataRecord()) {
         add(source->dataSetId(), record);
      }
      KEL_TRACE(traceIpfix, 3, "{} run at {}: added {} records from {}, setId: {}", coll.scope(),
                maxSize_, source->dataRecord().size(), sourceName, source->dataSetId());
   }
   if (builder.hasRecords()) {
      closing_ = builder.finalizeMsg();
   }
   KEL_TRACE(traceIpfix, 3, "{} run at {}: {} messages, {} records open", coll.scope(), maxSize_,
             messages_.size(), open_.size());
}

MessageRun::~MessageRun() {
   cache_->runDel({maxSize_, before_.ptr()}, this);
}

bool MessageRun::current(const OptionsDataSourceColl& coll) const {
   if (coll.source().size() != sources_.size()) {
      return false;
   }
   auto built = sources_.begin();
   for (const auto& [name, source] : coll.source()) {
      if (built->source != source || built->version != source->version()) {
         return false;
      }
      ++built;
   }
   return true;
}

Kel::Ptr<const MessageRun> MessageRunCache::runIs(const OptionsDataSourceColl& coll,
                                                  Kel::U16 maxSize,
                                                  const Kel::Ptr<const MessageRun>& before) {
   const Kel::Ptr<MessageRunCache>& cache = coll.messageRuns();
   const MessageRun::Key key{maxSize, before.ptr()};
   const auto it = cache->run_.find(key);
   if (it != cache->run_.end() && it->second->current(coll)) {
      return Kel::Ptr<const MessageRun>(it->second);
   }
   // A stale run stays with those that hold it until they build anew; from
   // now on this one is found under its key.
   Kel::Ptr<const MessageRun> run(new MessageRun(coll, maxSize, before, cache));
   cache->run_.insert_or_assign(key, run.ptr());
   ++cache->buildCount_;
   return run;
}

void MessageRunCache::runDel(const MessageRun::Key& key, const MessageRun* run) {
   if (const auto it = run_.find(key); it != run_.end() && it->second == run) {
      run_.erase(it);
   }
}

}  // namespace FlowTracking
