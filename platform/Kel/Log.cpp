#include "Kel/Log.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>

#include "Kel/System.h"

namespace Kel {

namespace {

class SyslogSink final : public LogSink {
 public:
   void write(const LogRecord& record) override {
      syslog(std::clamp(record.severity, 0, 7), "%.*s", int(record.line.size()),
             record.line.data());
   }
};

class StderrSink final : public LogSink {
 public:
   void write(const LogRecord& record) override {
      const String line = String(record.line) + "\n";
      if (::write(2, line.data(), line.size()) < 0) {
         return;
      }
   }
};

std::vector<LogSink*>& sinkList() {
   static SyslogSink syslogSink;
   static StderrSink stderrSink;
   static std::vector<LogSink*> sinks{&syslogSink, &stderrSink};
   return sinks;
}

}  // namespace

LogHandle::LogHandle(std::string_view facility, std::string_view mnemonic, int severity,
                     std::string_view format, std::string_view explanation,
                     std::string_view recommendedAction, int burst, double intervalSeconds,
                     int rateLimited)
    : facility_(facility),
      mnemonic_(mnemonic),
      severity_(severity),
      format_(format),
      explanation_(explanation),
      recommendedAction_(recommendedAction),
      burst_(burst),
      intervalSeconds_(intervalSeconds),
      rateLimited_(rateLimited != 0) {}

String LogHandle::text(std::initializer_list<std::string_view> args) const {
   String out;
   auto arg = args.begin();
   for (std::size_t i = 0; i < format_.size(); ++i) {
      if (format_[i] == '%' && i + 1 < format_.size() && format_[i + 1] == 's') {
         if (arg != args.end()) {
            out += *arg++;
         }
         ++i;
      } else {
         out += format_[i];
      }
   }
   return out;
}

void LogHandle::log(std::initializer_list<std::string_view> args) const {
   if (rateLimited_) {
      const Seconds now = System::currentTime();
      if (now - intervalStart_ >= intervalSeconds_) {
         intervalStart_ = now;
         sentInInterval_ = 0;
      }
      if (sentInInterval_ >= burst_) {
         return;
      }
      ++sentInInterval_;
   }
   const String line = fmt::format("%{}-{}-{}: {}", facility_, severity_, mnemonic_, text(args));
   const LogRecord record{facility_, mnemonic_, severity_, line};
   for (LogSink* sink : sinkList()) {
      sink->write(record);
   }
}

std::vector<LogSink*> Log::sinks() {
   return sinkList();
}

void Log::sinksIs(std::vector<LogSink*> sinks) {
   sinkList() = std::move(sinks);
}

LogCapture::LogCapture() : previousSinks_(Log::sinks()) {
   Log::sinksIs({this});
}

LogCapture::~LogCapture() {
   Log::sinksIs(previousSinks_);
}

void LogCapture::write(const LogRecord& record) {
   lines_.emplace_back(record.line);
   mnemonics_.emplace_back(record.mnemonic);
}

std::size_t LogCapture::count(std::string_view mnemonic) const {
   return std::count(mnemonics_.begin(), mnemonics_.end(), mnemonic);
}

}  // namespace Kel
