#include "Kel/Trace.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "Kel/System.h"

namespace Kel {

namespace {

struct Registry {
   std::vector<TraceHandle*> handles;
   std::map<Name, int, std::less<>> levels;
   // None until the process installs its own (see Trace/Sinks.h).
   std::vector<TraceSink*> sinks;

   Registry() {
      if (const char* spec = std::getenv("IPFIX_TRACE")) {
         String error;
         if (!apply(spec, &error)) {
            std::fprintf(stderr, "IPFIX_TRACE ignored: %s\n", error.c_str());
         }
      }
   }

   int levelOf(std::string_view facility) const {
      const auto it = levels.find(facility);
      return it == levels.end() ? Trace::defaultLevel : it->second;
   }

   bool apply(std::string_view spec, String* error) {
      std::map<Name, int, std::less<>> parsed;
      while (!spec.empty()) {
         const auto comma = spec.find(',');
         const std::string_view item = spec.substr(0, comma);
         spec = comma == std::string_view::npos ? std::string_view() : spec.substr(comma + 1);
         const auto slash = item.find('/');
         int level = -1;
         const std::string_view levelText =
             slash == std::string_view::npos ? std::string_view() : item.substr(slash + 1);
         const auto [end, ec] =
             std::from_chars(levelText.data(), levelText.data() + levelText.size(), level);
         if (slash == 0 || slash == std::string_view::npos || ec != std::errc() ||
             end != levelText.data() + levelText.size() || level < 0 || level > Trace::maxLevel) {
            if (error) {
               *error = "bad trace setting \"" + String(item) +
                        "\": expected Facility/level with a level from 0 to 9";
            }
            return false;
         }
         parsed[Name(item.substr(0, slash))] = level;
      }
      for (const auto& [facility, level] : parsed) {
         levels[facility] = level;
      }
      for (TraceHandle* h : handles) {
         h->levelIs(levelOf(h->facility()));
      }
      return true;
   }
};

Registry& registry() {
   static Registry instance;
   return instance;
}

}  // namespace

TraceHandle::TraceHandle(std::string_view facility)
    : facility_(facility), level_(registry().levelOf(facility)) {
   registry().handles.push_back(this);
}

TraceHandle::~TraceHandle() {
   std::erase(registry().handles, this);
}

void TraceHandle::emitText(int level, std::string_view text) const {
   const TraceRecord record{System::currentTimeUtc(), facility_, level, text};
   for (TraceSink* sink : registry().sinks) {
      sink->write(record);
   }
}

bool Trace::configure(std::string_view spec, String* error) {
   return registry().apply(spec, error);
}

int Trace::levelOf(std::string_view facility) {
   return registry().levelOf(facility);
}

std::vector<TraceSink*> Trace::sinks() {
   return registry().sinks;
}

void Trace::sinksIs(std::vector<TraceSink*> sinks) {
   registry().sinks = std::move(sinks);
}

TraceCapture::TraceCapture(std::string_view facility, int level)
    : facility_(facility),
      previousLevel_(Trace::levelOf(facility)),
      previousSinks_(Trace::sinks()) {
   Trace::sinksIs({this});
   registry().apply(fmt::format("{}/{}", facility_, level), nullptr);
}

TraceCapture::~TraceCapture() {
   registry().apply(fmt::format("{}/{}", facility_, previousLevel_), nullptr);
   Trace::sinksIs(previousSinks_);
}

void TraceCapture::write(const TraceRecord& record) {
   if (record.facility != facility_) {
      return;
   }
   lines_.emplace_back(record.text);
   levels_.push_back(record.level);
}

std::vector<String> TraceCapture::lines(int level) const {
   std::vector<String> result;
   for (std::size_t i = 0; i < lines_.size(); ++i) {
      if (levels_[i] == level) {
         result.push_back(lines_[i]);
      }
   }
   return result;
}

bool TraceCapture::contains(std::string_view text) const {
   return std::find(lines_.begin(), lines_.end(), text) != lines_.end();
}

}  // namespace Kel
