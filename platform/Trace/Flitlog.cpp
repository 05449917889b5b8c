#include "Trace/Flitlog.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
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

namespace {

// Fills a fixed buffer with text and numbers by hand: the dump runs in a
// fatal-signal handler, where printf and allocation are not allowed.
class LineWriter {
 public:
   LineWriter(char* out, std::size_t size) : out_(out), size_(size) {}

   LineWriter& text(const char* s, std::size_t n) {
      for (std::size_t i = 0; i < n && used_ < size_; ++i) {
         out_[used_++] = s[i];
      }
      return *this;
   }
   LineWriter& text(const char* s) { return text(s, std::strlen(s)); }
   LineWriter& number(Kel::U64 n, int minDigits = 1) {
      char digits[20];
      int count = 0;
      do {
         digits[count++] = static_cast<char>('0' + n % 10);
         n /= 10;
      } while (n != 0 || count < minDigits);
      while (count > 0) {
         text(&digits[--count], 1);
      }
      return *this;
   }
   // Seconds with six decimals, as the text trace writes them.
   LineWriter& seconds(double s) {
      const auto micros = static_cast<Kel::U64>(s < 0 ? 0 : s * 1e6 + 0.5);
      return number(micros / 1000000).text(".").number(micros % 1000000, 6);
   }
   std::size_t used() const { return used_; }

 private:
   char* out_;
   std::size_t size_;
   std::size_t used_ = 0;
};

}  // namespace

std::size_t Ring::formatRecord(const Record& r, char* out, std::size_t size) {
   LineWriter line(out, size);
   line.seconds(r.utc).text(" ").text(r.facility.data(), r.facilityLen).text("/").number(r.level);
   line.text(" ").text(r.text.data(), r.textLen).text(r.truncated ? "...\n" : "\n");
   return line.used();
}

std::vector<Kel::String> Ring::lines() const {
   std::vector<Kel::String> result;
   char buf[facilityCapacity + textCapacity + 64];
   for (Kel::U64 i = written_ - size(); i < written_; ++i) {
      const std::size_t n = formatRecord(records_[i % records_.size()], buf, sizeof buf);
      result.emplace_back(buf, n - 1);
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
   LineWriter banner(buf, sizeof buf);
   banner.text("--- binary trace, last ").number(ring().size()).text(" records (").text(why);
   if (::write(dumpFd, buf, banner.text(") ---\n").used()) < 0) {
      return;
   }
   ring().dump(dumpFd);
}

// strsignal() may allocate and is no safer than printf in a handler.
const char* signalName(int sig) {
   switch (sig) {
      case SIGSEGV:
         return "SIGSEGV";
      case SIGBUS:
         return "SIGBUS";
      case SIGFPE:
         return "SIGFPE";
      case SIGILL:
         return "SIGILL";
      default:
         return "SIGABRT";
   }
}

void onFatalSignal(int sig) {
   dumpBanner(signalName(sig));
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
