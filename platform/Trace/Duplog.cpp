#include "Trace/Duplog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>

namespace Duplog {

Kel::String formatLine(const Kel::TraceRecord& record) {
   const double whole = std::floor(record.utc);
   const std::time_t seconds = static_cast<std::time_t>(whole);
   std::tm tm{};
   gmtime_r(&seconds, &tm);
   const int micros = static_cast<int>((record.utc - whole) * 1e6);
   return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:06} {}/{} {}\n", tm.tm_year + 1900,
                      tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, micros,
                      record.facility, record.level, record.text);
}

TextTrace::~TextTrace() {
   outputToStderr();
}

void TextTrace::write(const Kel::TraceRecord& record) {
   const Kel::String line = formatLine(record);
   // One write per line keeps lines whole when several processes share a file.
   if (::write(fd_, line.data(), line.size()) < 0) {
      return;
   }
}

bool TextTrace::outputIs(const Kel::String& path, Kel::String* error) {
   const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
   if (fd < 0) {
      if (error) {
         *error = path + ": " + std::strerror(errno);
      }
      return false;
   }
   outputToStderr();
   fd_ = fd;
   return true;
}

void TextTrace::outputToStderr() {
   if (fd_ != 2) {
      ::close(fd_);
      fd_ = 2;
   }
}

TextTrace& textTrace() {
   static TextTrace instance;
   return instance;
}

}  // namespace Duplog
