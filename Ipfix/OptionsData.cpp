#include "Ipfix/OptionsData.h"

#include <array>
#include <utility>

#include "Ipfix/MessageRun.h"
#include "Kel/Exception.h"

namespace FlowTracking {

namespace {

constexpr std::array<std::pair<OptionsDataScope, std::string_view>, 2> scopeNames = {{
    {OptionsDataScope::scopeGlobal, "scopeGlobal"},
    {OptionsDataScope::scopeTracker, "scopeTracker"},
}};

// `current` when it already has `scope`, else a new object of that scope: the
// keep-or-replace rule of the single-object attributes.
template <class T>
Kel::Ptr<T> objectOfScope(const Kel::Ptr<T>& current, OptionsDataScope scope) {
   if (current && current->scope() == scope) {
      return current;
   }
   return Kel::makeActive<T>(scope);
}

}  // namespace

std::string_view valueToStrep(OptionsDataScope scope) {
   for (const auto& [value, name] : scopeNames) {
      if (value == scope) {
         return name;
      }
   }
   return {};
}

Kel::String stringValue(OptionsDataScope scope) {
   const std::string_view name = valueToStrep(scope);
   return name.empty() ? std::to_string(static_cast<unsigned>(scope)) : Kel::String(name);
}

std::ostream& operator<<(std::ostream& os, OptionsDataScope scope) {
   return os << stringValue(scope);
}

void OptionsDataSource::dataRecordIs(const DataRecordPtr& record) {
   Kel::checkMutatorArg(record, "dataRecord", "FlowTracking::OptionsDataSource::dataRecord");
   if (dataRecord_.insert(record)) {
      notify(&Notifiee::onDataRecord, record);
   }
}

void OptionsDataSource::dataRecordDel(DataRecordPtr record) {
   if (dataRecord_.erase(record)) {
      notify(&Notifiee::onDataRecord, record);
   }
}

void OptionsDataSource::dataRecordDelAll() {
   while (!dataRecord_.empty()) {
      dataRecordDel(*dataRecord_.begin());
   }
}

OptionsDataSourceColl::OptionsDataSourceColl(OptionsDataScope scope)
    : scope_(scope), messageRuns_(Kel::makePtr<MessageRunCache>()) {}

// Out of line: the run cache is only declared in the header.
OptionsDataSourceColl::~OptionsDataSourceColl() = default;

Kel::Ptr<OptionsDataSource> OptionsDataSourceColl::sourceIs(const Kel::String& sourceName,
                                                            TemplateId dataSetId) {
   auto source = entryFindOrCreate(
       source_, sourceName,
       [&] { return Kel::makeActive<OptionsDataSource>(sourceName, dataSetId); },
       &Notifiee::onSource);
   Kel::checkConstructorParam("dataSetId", dataSetId, source->dataSetId());
   return source;
}

void OptionsDataUpdate::addUpdate(TemplateId dataSetId, const DataRecordPtr& record) {
   attributeIs(dataSetId_, dataSetId, &Notifiee::onDataSetId);
   attributeIs(dataRecord_, record, &Notifiee::onDataRecord);
   attributeIs(version_, version_ + 1, &Notifiee::onVersion);
}

TrackerOptionsData::TrackerOptionsData(Kel::Name name)
    : name_(std::move(name)),
      data_(Kel::makeActive<OptionsDataSourceColl>(OptionsDataScope::scopeTracker)),
      update_(Kel::makeActive<OptionsDataUpdate>(OptionsDataScope::scopeTracker)) {}

Kel::Ptr<OptionsDataSourceColl> TrackerOptionsData::dataIs(OptionsDataScope scope) {
   attributeIs(data_, objectOfScope(data_, scope), &Notifiee::onData);
   return data_;
}

void TrackerOptionsData::dataDel() {
   attributeIs(data_, Kel::Ptr<OptionsDataSourceColl>(), &Notifiee::onData);
}

Kel::Ptr<OptionsDataUpdate> TrackerOptionsData::updateIs(OptionsDataScope scope) {
   attributeIs(update_, objectOfScope(update_, scope), &Notifiee::onUpdate);
   return update_;
}

void TrackerOptionsData::updateDel() {
   attributeIs(update_, Kel::Ptr<OptionsDataUpdate>(), &Notifiee::onUpdate);
}

OptionsDataAll::OptionsDataAll()
    : globalData_(Kel::makeActive<OptionsDataSourceColl>(OptionsDataScope::scopeGlobal)),
      globalUpdate_(Kel::makeActive<OptionsDataUpdate>(OptionsDataScope::scopeGlobal)) {}

Kel::Ptr<OptionsDataSourceColl> OptionsDataAll::globalDataIs(OptionsDataScope scope) {
   attributeIs(globalData_, objectOfScope(globalData_, scope), &Notifiee::onGlobalData);
   return globalData_;
}

void OptionsDataAll::globalDataDel() {
   attributeIs(globalData_, Kel::Ptr<OptionsDataSourceColl>(), &Notifiee::onGlobalData);
}

Kel::Ptr<OptionsDataUpdate> OptionsDataAll::globalUpdateIs(OptionsDataScope scope) {
   attributeIs(globalUpdate_, objectOfScope(globalUpdate_, scope), &Notifiee::onGlobalUpdate);
   return globalUpdate_;
}

void OptionsDataAll::globalUpdateDel() {
   attributeIs(globalUpdate_, Kel::Ptr<OptionsDataUpdate>(), &Notifiee::onGlobalUpdate);
}

Kel::Ptr<TrackerOptionsData> OptionsDataAll::trackerDataIs(const Kel::Name& name) {
   return entryFindOrCreate(
       trackerData_, name, [&] { return Kel::makeActive<TrackerOptionsData>(name); },
       &Notifiee::onTrackerData);
}

void OptionsDataContainer::dataIs(const Kel::Ptr<OptionsDataSourceColl>& data) {
   Kel::checkMutatorArg(data, "data", "FlowTracking::OptionsDataContainer::data");
   entryIs(data_, data->scope(), data, &Notifiee::onData);
}

void OptionsDataContainer::updateIs(const Kel::Ptr<OptionsDataUpdate>& update) {
   Kel::checkMutatorArg(update, "update", "FlowTracking::OptionsDataContainer::update");
   entryIs(update_, update->scope(), update, &Notifiee::onUpdate);
}

Kel::Ptr<OptionsDataAll> optionsDataAllFactory() {
   return Kel::makeActive<OptionsDataAll>();
}

Kel::Ptr<OptionsDataContainer> optionsDataContainerFactory(const Kel::Name& name) {
   return Kel::makeActive<OptionsDataContainer>(name);
}

}  // namespace FlowTracking
