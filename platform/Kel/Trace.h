#pragma once

#include <fmt/format.h>

#include <string_view>
#include <vector>

#include "Kel/Types.h"

namespace Kel {

struct TraceRecord {
   Seconds utc;
   std::string_view facility;
   int level;
   std::string_view text;
};

class TraceSink {
 public:
   virtual ~TraceSink() = default;
   virtual void write(const TraceRecord& record) = 0;
};

// One per facility and translation unit ("Ipfix", "Bexa", ...). Levels 0 to 9:
// enabling level N traces levels 0..N. Level 4 is handler entry, 3 creations,
// deletions and decisions, 1 caught errors. Use through KEL_TRACE so that a
// disabled level costs one comparison and formats nothing.
class TraceHandle {
 public:
   explicit TraceHandle(std::string_view facility);
   ~TraceHandle();
   TraceHandle(const TraceHandle&) = delete;
   TraceHandle& operator=(const TraceHandle&) = delete;

   bool enabled(int level) const noexcept { return level <= level_; }
   const Name& facility() const noexcept { return facility_; }
   int level() const noexcept { return level_; }
   void levelIs(int level) noexcept { level_ = level; }

   template <class... Args>
   void emit(int level, fmt::format_string<Args...> format, Args&&... args) const {
      emitText(level, fmt::vformat(format, fmt::make_format_args(args...)));
   }
   void emitText(int level, std::string_view text) const;

 private:
   Name facility_;
   int level_;
};

// The process-wide trace configuration: levels per facility (IPFIX_TRACE sets
// them at start) and the sinks every enabled line goes to, none until the
// process installs some.
class Trace {
 public:
   static constexpr int maxLevel = 9;
   // No facility is traced until configured, except at level 0.
   static constexpr int defaultLevel = 0;

   // Applies "Facility/level,Facility/level,..." to existing and future handles.
   // On a malformed spec returns false, sets `error` and changes nothing.
   static bool configure(std::string_view spec, String* error = nullptr);
   static int levelOf(std::string_view facility);

   static std::vector<TraceSink*> sinks();
   static void sinksIs(std::vector<TraceSink*> sinks);
};

// Captures the trace lines of one facility for a test, instead of the usual
// sinks, and enables that facility up to `level` while it lives. Lines of other
// facilities (enabled by IPFIX_TRACE, say) are dropped.
class TraceCapture final : public TraceSink {
 public:
   TraceCapture(std::string_view facility, int level);
   ~TraceCapture() override;

   void write(const TraceRecord& record) override;
   const std::vector<String>& lines() const { return lines_; }
   // Lines traced at exactly `level`.
   std::vector<String> lines(int level) const;
   bool contains(std::string_view text) const;
   void clear() {
      lines_.clear();
      levels_.clear();
   }

 private:
   Name facility_;
   int previousLevel_;
   std::vector<TraceSink*> previousSinks_;
   std::vector<String> lines_;
   std::vector<int> levels_;
};

}  // namespace Kel

#define KEL_TRACE(handle, level, ...)             \
   do {                                           \
      if ((handle).enabled(level)) [[unlikely]] { \
         (handle).emit((level), __VA_ARGS__);     \
      }                                           \
   } while (0)
