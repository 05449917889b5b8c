#include "Vorpa/WriterIncident.h"

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Vorpa {

namespace {

Kel::TraceHandle traceVorpa("Vorpa");

}  // namespace

void insertRefused(const TableSegment& segment) {
   SegmentHeader& header = segment.header();
   const Kel::U64 refused = header.insertRefusedCount.load(std::memory_order_relaxed) + 1;
   header.insertRefusedCount.store(refused, std::memory_order_relaxed);
   KEL_TRACE(traceVorpa, 1, "Table {} full ({} entries): insert refused, {} refused so far",
             segment.name(), segment.geometry().capacity, refused);
}

void corruptionFound(const TableSegment& segment, const char* assertion) {
   SegmentHeader& header = segment.header();
   header.corruptionCount.store(header.corruptionCount.load(std::memory_order_relaxed) + 1,
                                std::memory_order_relaxed);
   KEL_TRACE(traceVorpa, 1, "Table {} corrupt: {}", segment.name(), assertion);
   throw Kel::AssertionError(assertion);
}

}  // namespace Vorpa
