#pragma once

#include <array>
#include <vector>

#include "Kel/Trace.h"

// The binary trace: the last records kept in memory, fixed-size and
// allocation-free once built, to be dumped when the process dies or on demand.
namespace Flitlog {

class Ring final : public Kel::TraceSink {
 public:
   static constexpr std::size_t facilityCapacity = 15;
   static constexpr std::size_t textCapacity = 239;

   explicit Ring(std::size_t capacity = 4096);

   void write(const Kel::TraceRecord& record) override;
   std::size_t capacity() const { return records_.size(); }
   std::size_t size() const;
   // The held records as text lines, oldest first.
   std::vector<Kel::String> lines() const;
   // Writes the held records to `fd`, oldest first, with write() alone: no
   // allocation, no locks, no printf, so that a fatal-signal handler may call
   // it.
   void dump(int fd) const;

 private:
   struct Record {
      double utc;
      Kel::U8 level;
      Kel::U8 facilityLen;
      Kel::U8 textLen;
      bool truncated;
      std::array<char, facilityCapacity> facility;
      std::array<char, textCapacity> text;
   };
   static std::size_t formatRecord(const Record& r, char* out, std::size_t size);

   std::vector<Record> records_;
   Kel::U64 written_ = 0;
};

// The process's ring, which every trace line goes to.
Ring& ring();

// Dumps the process ring to `fd` on a fatal signal (SIGSEGV, SIGBUS, SIGFPE,
// SIGILL, SIGABRT) and on std::terminate (an escaping assertion), then lets
// the process die as it would have.
void dumpOnFatalErrors(int fd = 2);

}  // namespace Flitlog
