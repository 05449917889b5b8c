#pragma once

#include <fmt/format.h>

#include <map>
#include <optional>
#include <ostream>
#include <string_view>

#include "HwFlowTracking/Status.h"
#include "Ipfix/DataRecord.h"
#include "Ipfix/DataRecordSet.h"

// The options data model: where the data sources (flow keys, flow-tracker
// table, interface and VRF tables) hand their encoded records to the options
// data exporter. Sources write; the exporter and the managers only read (the
// managers also create and delete the entities). Every attribute notifies its
// observers, synchronously and only when it changed.
namespace FlowTracking {

using HwFlowTracking::TemplateId;

class MessageRunCache;

// Whether data is the same for all trackers of a flow-tracking type (interface
// and VRF tables) or belongs to one tracker (flow keys, flow-tracker table).
enum class OptionsDataScope : Kel::U8 {
   scopeGlobal = 0,
   scopeTracker = 1,
};

// The scope's name ("scopeGlobal"); empty for a value outside the enumeration.
std::string_view valueToStrep(OptionsDataScope scope);
// The scope's name, or its number for a value outside the enumeration.
Kel::String stringValue(OptionsDataScope scope);
std::ostream& operator<<(std::ostream& os, OptionsDataScope scope);

// The current, complete set of records of one data source. The writer raises
// `version` once per completed change; the exporter takes a version change as
// a change of the whole set.
class OptionsDataSource : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<OptionsDataSource> {
    public:
      virtual void onDataRecord(const DataRecordPtr&) {}
      virtual void onVersion() {}
   };

   OptionsDataSource(Kel::String sourceName, TemplateId dataSetId)
       : sourceName_(std::move(sourceName)), dataSetId_(dataSetId) {}

   const Kel::String& sourceName() const { return sourceName_; }
   // The options template whose data set carries every record of the source.
   TemplateId dataSetId() const { return dataSetId_; }

   // Keyed by identity: two records with equal octets are two entries. The
   // iteration order carries no meaning.
   const DataRecordSet& dataRecord() const { return dataRecord_; }
   void dataRecordIs(const DataRecordPtr& record);
   // By value: the argument may be the set's own element, which erase destroys.
   void dataRecordDel(DataRecordPtr record);
   void dataRecordDelAll();

   Kel::U32 version() const { return version_; }
   void versionIs(Kel::U32 version) { attributeIs(version_, version, &Notifiee::onVersion); }
   void versionInc(Kel::U32 n) { versionIs(version_ + n); }

 private:
   Kel::String sourceName_;
   TemplateId dataSetId_;
   DataRecordSet dataRecord_;
   Kel::U32 version_ = 0;
};

// All data sources of one scope, by source name, and the messages their
// records make for the exporters that read them, kept once for all of them.
class OptionsDataSourceColl : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<OptionsDataSourceColl> {
    public:
      virtual void onSource(const Kel::String&) {}
   };

   explicit OptionsDataSourceColl(OptionsDataScope scope);
   ~OptionsDataSourceColl() override;

   OptionsDataScope scope() const { return scope_; }
   // The encoded runs of these records in use, per message size.
   const Kel::Ptr<MessageRunCache>& messageRuns() const { return messageRuns_; }

   const std::map<Kel::String, Kel::Ptr<OptionsDataSource>>& source() const { return source_; }
   Kel::Ptr<OptionsDataSource> source(const Kel::String& sourceName) const {
      return Kel::findEntry(source_, sourceName);
   }
   // Creates the source, or returns the existing one of that name; an existing
   // source with another data set id is refused (NameInUseException).
   Kel::Ptr<OptionsDataSource> sourceIs(const Kel::String& sourceName, TemplateId dataSetId);
   void sourceDel(const Kel::String& sourceName) {
      entryDel(source_, sourceName, &Notifiee::onSource);
   }
   void sourceDelAll() { entryDelAll(source_, &Notifiee::onSource); }

 private:
   OptionsDataScope scope_;
   std::map<Kel::String, Kel::Ptr<OptionsDataSource>> source_;
   const Kel::Ptr<MessageRunCache> messageRuns_;
};

// A single-slot mailbox announcing the latest record change of one scope. The
// pair (dataSetId, dataRecord) is written before `version` moves, so an
// observer of `version` always reads a consistent pair; it must read it at
// each notification, as the next update overwrites it.
class OptionsDataUpdate : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<OptionsDataUpdate> {
    public:
      virtual void onDataSetId() {}
      virtual void onDataRecord() {}
      virtual void onVersion() {}
   };

   // The data set id before any update.
   static constexpr TemplateId noDataSetId = 0xFFFF;

   explicit OptionsDataUpdate(OptionsDataScope scope) : scope_(scope) {}

   OptionsDataScope scope() const { return scope_; }
   TemplateId dataSetId() const { return dataSetId_; }
   // The latest new or changed record, kept alive until the next update.
   const DataRecordPtr& dataRecord() const { return dataRecord_; }
   // Raised by one with every update.
   Kel::U32 version() const { return version_; }

   // Stores the pair, then raises `version`. A null record is announced like
   // any other; the exporter queues it as nothing to send (0 octets).
   void addUpdate(TemplateId dataSetId, const DataRecordPtr& record);

 private:
   OptionsDataScope scope_;
   TemplateId dataSetId_ = noDataSetId;
   DataRecordPtr dataRecord_;
   Kel::U32 version_ = 0;
};

// The tracker-scope data of one flow tracker. Its collection and update exist
// from construction. dataIs/updateIs keep the existing object when it has the
// requested scope and replace it by a new one otherwise.
class TrackerOptionsData : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<TrackerOptionsData> {
    public:
      virtual void onData() {}
      virtual void onUpdate() {}
   };

   explicit TrackerOptionsData(Kel::Name name);

   const Kel::Name& name() const { return name_; }

   const Kel::Ptr<OptionsDataSourceColl>& data() const { return data_; }
   Kel::Ptr<OptionsDataSourceColl> dataIs(OptionsDataScope scope);
   void dataDel();

   const Kel::Ptr<OptionsDataUpdate>& update() const { return update_; }
   Kel::Ptr<OptionsDataUpdate> updateIs(OptionsDataScope scope);
   void updateDel();

 private:
   Kel::Name name_;
   Kel::Ptr<OptionsDataSourceColl> data_;
   Kel::Ptr<OptionsDataUpdate> update_;
};

// The options data of one flow-tracking type: the global-scope collection and
// update, which exist from construction (same keep-or-replace rule as
// TrackerOptionsData), and the per-tracker data by tracker name.
class OptionsDataAll : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<OptionsDataAll> {
    public:
      virtual void onGlobalData() {}
      virtual void onGlobalUpdate() {}
      virtual void onTrackerData(const Kel::Name&) {}
   };

   OptionsDataAll();

   const Kel::Ptr<OptionsDataSourceColl>& globalData() const { return globalData_; }
   Kel::Ptr<OptionsDataSourceColl> globalDataIs(OptionsDataScope scope);
   void globalDataDel();

   const Kel::Ptr<OptionsDataUpdate>& globalUpdate() const { return globalUpdate_; }
   Kel::Ptr<OptionsDataUpdate> globalUpdateIs(OptionsDataScope scope);
   void globalUpdateDel();

   const std::map<Kel::Name, Kel::Ptr<TrackerOptionsData>>& trackerData() const {
      return trackerData_;
   }
   Kel::Ptr<TrackerOptionsData> trackerData(const Kel::Name& name) const {
      return Kel::findEntry(trackerData_, name);
   }
   // Creates the tracker's data, or returns the existing one.
   Kel::Ptr<TrackerOptionsData> trackerDataIs(const Kel::Name& name);
   void trackerDataDel(const Kel::Name& name) {
      entryDel(trackerData_, name, &Notifiee::onTrackerData);
   }
   void trackerDataDelAll() { entryDelAll(trackerData_, &Notifiee::onTrackerData); }

 private:
   Kel::Ptr<OptionsDataSourceColl> globalData_;
   Kel::Ptr<OptionsDataUpdate> globalUpdate_;
   std::map<Kel::Name, Kel::Ptr<TrackerOptionsData>> trackerData_;
};

// What one exporter reads: the collections and updates of both scopes for one
// flow tracker, each under its own scope. It holds further references to
// objects owned by OptionsDataAll and TrackerOptionsData.
class OptionsDataContainer : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<OptionsDataContainer> {
    public:
      virtual void onData(OptionsDataScope) {}
      virtual void onUpdate(OptionsDataScope) {}
   };

   explicit OptionsDataContainer(Kel::Name name) : name_(std::move(name)) {}

   const Kel::Name& name() const { return name_; }

   const std::map<OptionsDataScope, Kel::Ptr<OptionsDataSourceColl>>& data() const { return data_; }
   // Null when there is no collection of that scope.
   Kel::Ptr<OptionsDataSourceColl> data(OptionsDataScope scope) const {
      return Kel::findEntry(data_, scope);
   }
   // Inserts under the collection's own scope; null is refused
   // (NullMutatorArgException) and changes nothing.
   void dataIs(const Kel::Ptr<OptionsDataSourceColl>& data);
   void dataDel(OptionsDataScope scope) { entryDel(data_, scope, &Notifiee::onData); }
   void dataDelAll() { entryDelAll(data_, &Notifiee::onData); }

   const std::map<OptionsDataScope, Kel::Ptr<OptionsDataUpdate>>& update() const { return update_; }
   Kel::Ptr<OptionsDataUpdate> update(OptionsDataScope scope) const {
      return Kel::findEntry(update_, scope);
   }
   void updateIs(const Kel::Ptr<OptionsDataUpdate>& update);
   void updateDel(OptionsDataScope scope) { entryDel(update_, scope, &Notifiee::onUpdate); }
   void updateDelAll() { entryDelAll(update_, &Notifiee::onUpdate); }

 private:
   Kel::Name name_;
   std::map<OptionsDataScope, Kel::Ptr<OptionsDataSourceColl>> data_;
   std::map<OptionsDataScope, Kel::Ptr<OptionsDataUpdate>> update_;
};

Kel::Ptr<OptionsDataAll> optionsDataAllFactory();
Kel::Ptr<OptionsDataContainer> optionsDataContainerFactory(const Kel::Name& name);

}  // namespace FlowTracking

template <>
struct fmt::formatter<FlowTracking::OptionsDataScope> : fmt::formatter<std::string_view> {
   auto format(FlowTracking::OptionsDataScope scope, fmt::format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(FlowTracking::stringValue(scope), ctx);
   }
};
