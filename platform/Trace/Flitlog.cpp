#include "Trace/Flitlog.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

namespace Flitlog {

Ring::Ring(std::size_t capacity) : records_(std::max<std::size_t>(capacity, 1)) {}

void Ring::write(const Kel::TraceRecord& record) {
   Record& r = records_[written_ % records_.size()];
   ++written_;
   r.utc = record.utc;
   r.level = static_cast<Kel::U8>(record.level);
   r.facilityLen = static_cast<Kel::U8>(std::min(record.facility.size(), facilityCapacity));
   std::memcpy(r.facility.data(), record.facility.data(), r.facilityLen);
   r.truncated = record.text.size() > textCapacity;
   r.textLen = static_cast<Kel::U8>(std::min(record.text.size(), textCapacity));
   std::memcpy(r.text.data(), record.text.data(), r.textLen);
}

std::size_t Ring::size() const {
   return std::min<Kel::U64>(written_, records_.size());
}

std::size_t Ring::formatRecord(const Record& r, char* out, std::size_t size) {
   const int n = std::snprintf(out, size, "%.6f %.*s/%u %.*s%s\n", r.utc, int(r.facilityLen),
                               r.facility.data(), unsigned(r.level), int(r.textLen), r.text.data(),
                               r.truncated ? "..." : "");
   return n < 0 ? 0 : std::min<std::size_t>(std::size_t(n), size - 1);
}

std::vector<Kel::String> Ring::lines() const {
   std::vector<Kel::String> result;
   char buf[facilityCapacity + textCapacity + 64];
   for (Kel::U64 i = written_ - size(); i < written_; ++i) {
      const std::size_t n = formatRecord(records_[i % records_.size()], buf, sizeof buf);
      result.emplace_back(buf, n ? n - 1 : 0);
   }
   return result;
}

void Ring::dump(int fd) const {
   char buf[facilityCapacity + textCapacity + 64];
   for (Kel::U64 i = written_ - size(); i < written_; ++i) {
      const std::size_t n = formatRecord(records_[i % records_.size()], buf, sizeof buf);
      if (::write(fd, buf, n) < 0) {
         return;
      }
   }
}

Ring& ring() {
   static Ring instance;
   return instance;
}

namespace {

int dumpFd = 2;

void dumpBanner(const char* why) {
   char buf[128];
   const int n = std::snprintf(buf, sizeof buf, "--- binary trace, last %zu records (%s) ---\n",
                               ring().size(), why);
   if (n > 0 && ::write(dumpFd, buf, std::size_t(n)) < 0) {
      return;
   }
   ring().dump(dumpFd);
}

void onFatalSignal(int sig) {
   dumpBanner(strsignal(sig));
   signal(sig, SIG_DFL);
   raise(sig);
}

}  // namespace

void dumpOnFatalErrors(int fd) {
   dumpFd = fd;
   ring();  // built now, not inside a signal handler
   for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
      signal(sig, onFatalSignal);
   }
   static const std::terminate_handler previous = std::set_terminate([] {
      dumpBanner("terminate");
      signal(SIGABRT, SIG_DFL);
      if (previous) {
         previous();
      }
      std::abort();
   });
}

}  // namespace Flitlog
