#pragma once

#include <fmt/format.h>

#include <initializer_list>
#include <string_view>
#include <vector>

#include "Kel/Types.h"

namespace Kel {

struct LogRecord {
   std::string_view facility;
   std::string_view mnemonic;
   int severity;
   // "%FACILITY-SEV-MNEMONIC: text"
   std::string_view line;
};

class LogSink {
 public:
   virtual ~LogSink() = default;
   virtual void write(const LogRecord& record) = 0;
};

// An operator message: an identity (facility and mnemonic), a syslog severity,
// a printf-like format whose "%s" are replaced in order, and the explanation and
// recommended action that documentation shows. A rate-limited message goes out
// at most `burst` times every `intervalSeconds` of the monotonic clock; the
// others are dropped.
class LogHandle {
 public:
   static constexpr std::string_view noActionRequired = "No action is required.";

   LogHandle(std::string_view facility, std::string_view mnemonic, int severity,
             std::string_view format, std::string_view explanation,
             std::string_view recommendedAction, int burst = 0, double intervalSeconds = 1.0,
             int rateLimited = 0);

   Name id() const { return fmt::format("{}_{}", facility_, mnemonic_); }
   std::string_view format() const { return format_; }
   std::string_view explanation() const { return explanation_; }
   std::string_view recommendedAction() const { return recommendedAction_; }
   int severity() const { return severity_; }

   // The message text with each "%s" replaced by the next argument.
   String text(std::initializer_list<std::string_view> args) const;
   void log(std::initializer_list<std::string_view> args) const;

 private:
   std::string_view facility_;
   std::string_view mnemonic_;
   int severity_;
   std::string_view format_;
   std::string_view explanation_;
   std::string_view recommendedAction_;
   int burst_;
   double intervalSeconds_;
   bool rateLimited_;
   // The current rate-limit interval and the messages sent in it.
   mutable Seconds intervalStart_ = 0;
   mutable int sentInInterval_ = 0;
};

class Log {
 public:
   // By default every message goes to syslog and to stderr.
   static std::vector<LogSink*> sinks();
   static void sinksIs(std::vector<LogSink*> sinks);
};

// Captures log messages for a test instead of the usual sinks while it lives.
class LogCapture final : public LogSink {
 public:
   LogCapture();
   ~LogCapture() override;
   LogCapture(const LogCapture&) = delete;
   LogCapture& operator=(const LogCapture&) = delete;

   void write(const LogRecord& record) override;
   const std::vector<String>& lines() const { return lines_; }
   // How many messages of the given mnemonic were logged.
   std::size_t count(std::string_view mnemonic) const;
   void clear() {
      lines_.clear();
      mnemonics_.clear();
   }

 private:
   std::vector<LogSink*> previousSinks_;
   std::vector<String> lines_;
   std::vector<String> mnemonics_;
};

}  // namespace Kel
