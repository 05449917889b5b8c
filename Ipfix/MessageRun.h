#pragma once

#include <map>
#include <utility>
#include <vector>

#include "Ipfix/OptionsData.h"
#include "Ipfix/OptionsDataExporter.h"

namespace FlowTracking {

class MessageRunCache;

// The finished messages that one collection's records make at one maximum
// message size, packed by one builder that first takes up the records the run
// before it (the previous scope's) left in its open message. Chained from the
// first scope's run to the last, runs produce byte for byte what a single
// builder over all those records produces, so a run can be shared by every
// exporter whose cache starts with the same chain, whatever its tracker: the
// observation domain is stamped per destination. Immutable once built.
class MessageRun : public Kel::PtrInterface {
 public:
   // A record of the message still open at the end of the run.
   struct OpenRecord {
      TemplateId setId;
      DataRecordPtr record;
   };

   ~MessageRun() override;

   Kel::U16 maxSize() const { return maxSize_; }
   // The messages this run filled, in order.
   const std::vector<Kel::Ptr<MessageWrapper>>& messages() const { return messages_; }
   // The records left in the open message, which the next run starts from.
   const std::vector<OpenRecord>& open() const { return open_; }
   // The open message finished as it is, for a chain that ends here; null
   // when no record is left open.
   const Kel::Ptr<MessageWrapper>& closing() const { return closing_; }
   // Whether the collection still has the sources, at the versions, that
   // the run was built from.
   bool current(const OptionsDataSourceColl& coll) const;

 private:
   friend class MessageRunCache;
   using Key = std::pair<Kel::U16, const MessageRun*>;
   struct SourceVersion {
      Kel::Ptr<const OptionsDataSource> source;
      Kel::U32 version;
   };

   MessageRun(const OptionsDataSourceColl& coll, Kel::U16 maxSize,
              Kel::Ptr<const MessageRun> before, Kel::Ptr<MessageRunCache> cache);

   const Kel::U16 maxSize_;
   const Kel::Ptr<const MessageRun> before_;
   std::vector<SourceVersion> sources_;
   std::vector<Kel::Ptr<MessageWrapper>> messages_;
   std::vector<OpenRecord> open_;
   Kel::Ptr<MessageWrapper> closing_;
   // Where the run is found while someone holds it.
   const Kel::Ptr<MessageRunCache> cache_;
};

// The runs of one collection that are in use, one per (maximum message size,
// run before it). A run stays here while anything holds it and leaves when
// the last holder lets go, so a message size no exporter uses any more frees
// its messages at once.
class MessageRunCache : public Kel::PtrInterface {
 public:
   // The run of `coll`'s records at `maxSize` after `before` (null for the
   // first scope): the one in use when its sources are unchanged, else a new
   // one, built now.
   static Kel::Ptr<const MessageRun> runIs(const OptionsDataSourceColl& coll, Kel::U16 maxSize,
                                           const Kel::Ptr<const MessageRun>& before);

   // Runs built so far, however many exporters took each.
   Kel::U64 buildCount() const { return buildCount_; }
   // Runs held now.
   std::size_t runCount() const { return run_.size(); }

 private:
   friend class MessageRun;

   void runDel(const MessageRun::Key& key, const MessageRun* run);

   std::map<MessageRun::Key, const MessageRun*> run_;
   Kel::U64 buildCount_ = 0;
};

}  // namespace FlowTracking
