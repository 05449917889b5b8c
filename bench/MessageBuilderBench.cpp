// Packing an interface table of 1,000,000 records (4-octet interface index,
// then the name as one length octet and its text) into IPFIX messages of at
// most 1452 octets (a 1500-octet MTU less IPv6 and UDP headers), three ways
// side by side:
//  - messageBuilder: our MessageBuilder, from the published DataRecords;
//  - memcpyPacker: the same octets copied once each into a message buffer,
//    headers written when it is full; the bound for any packer;
//  - libfixbuf: libfixbuf encoding the same records with an equivalent
//    options template into a memory buffer; the peer.
// Each reports ns_per_record; messageBuilder also its heap allocations.
#include <benchmark/benchmark.h>
#include <fixbuf/public.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "AllocationCounter.h"
#include "BenchCounters.h"
#include "Ipfix/MessageBuilder.h"
#include "Nivel/NetOrder.h"

namespace {

constexpr Kel::U32 tableSize = 1'000'000;
constexpr Kel::U16 maxMsgSize = 1452;
constexpr Kel::U16 intfSetId = 0xFFFD;
constexpr Kel::U32 observationDomainId = 1;

using RecordPtr = Kel::Ptr<const FlowTracking::DataRecord>;

// The table as its source publishes it: one DataRecord per interface, names
// such as "Ethernet12/3", built once for all benchmarks.
const std::vector<RecordPtr>& intfTable() {
   static const std::vector<RecordPtr> table = [] {
      std::vector<RecordPtr> records;
      records.reserve(tableSize);
      for (Kel::U32 i = 0; i < tableSize; ++i) {
         const std::string name = fmt::format("Ethernet{}/{}", i / 48 + 1, i % 48 + 1);
         const Nivel::U32Net index(i + 1);
         const auto nameLen = static_cast<Kel::U8>(name.size());
         auto r = FlowTracking::dataRecordFactory();
         r->append(index.octets(), sizeof(index));
         r->append(&nameLen, 1);
         r->append(reinterpret_cast<const Kel::U8*>(name.data()), nameLen);
         records.push_back(r);
      }
      return records;
   }();
   return table;
}

void reportPacking(benchmark::State& state, Kel::U64 messages) {
   const double records = double(state.iterations()) * tableSize;
   reportTimePerItem(state, "ns_per_record", records);
   state.counters["records_per_msg"] = records / double(messages);
}

void messageBuilder(benchmark::State& state) {
   const auto& records = intfTable();
   auto builder = FlowTracking::messageBuilderFactory(maxMsgSize, observationDomainId);
   Kel::U64 messages = 0;
   const Kel::U64 allocationsBefore = allocationCount();
   for (auto _ : state) {
      builder->startMsg();
      for (const RecordPtr& r : records) {
         if (builder->addSetRecord(intfSetId, r) == 0) {
            benchmark::DoNotOptimize(builder->finalizeMsg());
            ++messages;
            builder->startMsg();
            builder->addSetRecord(intfSetId, r);
         }
      }
      benchmark::DoNotOptimize(builder->finalizeMsg());
      ++messages;
   }
   const double allocations = double(allocationCount() - allocationsBefore);
   reportPacking(state, messages);
   state.counters["allocs_per_msg"] = allocations / double(messages);
   state.counters["allocs_per_record"] = allocations / (double(state.iterations()) * tableSize);
}
BENCHMARK(messageBuilder)->Unit(benchmark::kMillisecond);

void memcpyPacker(benchmark::State& state) {
   std::vector<std::string_view> records;
   for (const RecordPtr& r : intfTable()) {
      records.emplace_back(r->data());
   }
   constexpr Kel::U32 bodyStart = 20;  // message header and one set header
   std::array<Kel::U8, maxMsgSize> msg{};
   Kel::U32 offset = bodyStart;
   Kel::U64 messages = 0;
   const auto finish = [&] {
      Nivel::storeNet<Kel::U16>(msg.data(), 10);
      Nivel::storeNet<Kel::U16>(msg.data() + 2, Kel::U16(offset));
      Nivel::storeNet<Kel::U32>(msg.data() + 12, observationDomainId);
      Nivel::storeNet<Kel::U16>(msg.data() + 16, intfSetId);
      Nivel::storeNet<Kel::U16>(msg.data() + 18, Kel::U16(offset - 16));
      benchmark::DoNotOptimize(msg.data());
      benchmark::ClobberMemory();
      ++messages;
      offset = bodyStart;
   };
   for (auto _ : state) {
      for (const std::string_view r : records) {
         if (offset + r.size() > maxMsgSize) {
            finish();
         }
         std::memcpy(msg.data() + offset, r.data(), r.size());
         offset += Kel::U32(r.size());
      }
      finish();
   }
   reportPacking(state, messages);
}
BENCHMARK(memcpyPacker)->Unit(benchmark::kMillisecond);

// The record as libfixbuf's transcoder reads it: the index, padding to align
// the variable-length field, and the name.
struct FixbufIntfRecord {
   std::uint32_t ingressInterface;
   std::uint8_t padding[4];
   fbVarfield_t interfaceName;
};

// Internal and external templates from one spec: the padding is only in the
// internal one (flag 1), as the wire has none.
fbInfoElementSpec_t intfSpec[] = {
    {const_cast<char*>("ingressInterface"), 4, 0},
    {const_cast<char*>("paddingOctets"), 4, 1},
    {const_cast<char*>("interfaceName"), FB_IE_VARLEN, 0},
    FB_IESPEC_NULL,
};

// libfixbuf set up to write the interface table's data sets into a memory
// buffer, each message emitted by the caller when the next record does not
// fit, as our builder's caller does.
class FixbufExport {
 public:
   FixbufExport() : model_(fbInfoModelAlloc()) {
      fbSession_t* session = fbSessionAlloc(model_);
      fbTemplate_t* internal = makeTemplate(1);
      fbTemplate_t* external = makeTemplate(0);
      fbTemplateSetOptionsScope(external, 1);
      fbSessionSetDomain(session, observationDomainId);
      // The buffer owns the session (and its templates) and the exporter.
      fbuf_ = fBufAllocForExport(session, fbExporterAllocBuffer(out_.data(), maxMsgSize));
      ok_ = ok_ && fbSessionAddTemplate(session, TRUE, intfSetId, internal, &err_) &&
            fbSessionAddTemplate(session, FALSE, intfSetId, external, &err_) &&
            fBufSetInternalTemplate(fbuf_, intfSetId, &err_) &&
            fBufSetExportTemplate(fbuf_, intfSetId, &err_);
      fBufSetAutomaticMode(fbuf_, FALSE);
   }
   ~FixbufExport() {
      g_clear_error(&err_);
      fBufFree(fbuf_);
      fbInfoModelFree(model_);
   }
   FixbufExport(const FixbufExport&) = delete;
   FixbufExport& operator=(const FixbufExport&) = delete;

   bool ok() const { return ok_; }
   const char* error() const { return err_ ? err_->message : "libfixbuf failed"; }
   fBuf_t* fbuf() const { return fbuf_; }
   GError** err() { return &err_; }

 private:
   fbTemplate_t* makeTemplate(std::uint32_t flags) {
      fbTemplate_t* t = fbTemplateAlloc(model_);
      ok_ = ok_ && fbTemplateAppendSpecArray(t, intfSpec, flags, &err_);
      return t;
   }

   fbInfoModel_t* model_;
   fBuf_t* fbuf_ = nullptr;
   GError* err_ = nullptr;
   bool ok_ = true;
   std::array<Kel::U8, maxMsgSize> out_{};
};

void libfixbuf(benchmark::State& state) {
   std::vector<FixbufIntfRecord> records;
   for (const RecordPtr& r : intfTable()) {
      const auto* octets = reinterpret_cast<const Kel::U8*>(r->data().data());
      records.push_back(
          {Nivel::loadNet<Kel::U32>(octets), {}, {octets[4], const_cast<Kel::U8*>(octets + 5)}});
   }
   FixbufExport fixbuf;
   if (!fixbuf.ok()) {
      state.SkipWithError(fixbuf.error());
      return;
   }
   fBuf_t* const fbuf = fixbuf.fbuf();
   GError** const err = fixbuf.err();

   Kel::U64 messages = 0;
   std::size_t longest = 0;
   const auto emit = [&] {
      if (!fBufEmit(fbuf, err)) {
         state.SkipWithError(fixbuf.error());
      }
      longest = std::max(longest, fbExporterGetMsgLen(fBufGetExporter(fbuf)));
      ++messages;
   };
   for (auto _ : state) {
      for (FixbufIntfRecord& r : records) {
         auto* rec = reinterpret_cast<std::uint8_t*>(&r);
         if (!fBufAppend(fbuf, rec, sizeof(r), err)) {
            g_clear_error(err);  // end of message
            emit();
            if (!fBufAppend(fbuf, rec, sizeof(r), err)) {
               state.SkipWithError(fixbuf.error());
               break;
            }
         }
      }
      emit();
   }
   if (longest > maxMsgSize) {
      state.SkipWithError("libfixbuf wrote messages above the maximum size");
   }
   reportPacking(state, messages);
}
BENCHMARK(libfixbuf)->Unit(benchmark::kMillisecond);

}  // namespace
