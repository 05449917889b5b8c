#include "ControlProtocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

namespace Control {

namespace {

constexpr std::string_view clearCommand = "clear";
constexpr std::string_view trackerField = "tracker";
constexpr std::string_view exporterField = "exporter";
constexpr std::string_view okText = "ok";
constexpr std::string_view errorPrefix = "error: ";

bool isUnreserved(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
          c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
   if (c >= '0' && c <= '9') {
      return c - '0';
   }
   if (c >= 'a' && c <= 'f') {
      return c - 'a' + 10;
   }
   if (c >= 'A' && c <= 'F') {
      return c - 'A' + 10;
   }
   return -1;
}

// Each octet outside `keep` as %XX.
template <class Keep>
Kel::String escaped(std::string_view text, Keep keep) {
   Kel::String out;
   out.reserve(text.size());
   for (const char c : text) {
      if (keep(c)) {
         out += c;
      } else {
         out += fmt::format("%{:02X}", static_cast<unsigned char>(c));
      }
   }
   return out;
}

bool fail(Kel::String* error, Kel::String message) {
   if (error) {
      *error = std::move(message);
   }
   return false;
}

}  // namespace

Kel::String shownText(std::string_view text) {
   constexpr std::size_t maxShown = 32;
   Kel::String s = escaped(text.substr(0, maxShown), [](char c) { return c >= ' ' && c <= '~'; });
   return text.size() > maxShown ? s + "..." : s;
}

std::optional<Kel::String> requestProblem(const ClearRequest& request) {
   if (request.tracker.empty() && !request.exporter.empty()) {
      return Kel::String("an exporter needs its tracker");
   }
   for (const auto& [what, name] :
        {std::pair{trackerField, &request.tracker}, std::pair{exporterField, &request.exporter}}) {
      if (name->size() > maxNameLength) {
         return fmt::format("{} name longer than {} octets", what, maxNameLength);
      }
   }
   return std::nullopt;
}

Kel::String requestText(const ClearRequest& request) {
   Kel::String text{clearCommand};
   if (!request.tracker.empty()) {
      text += fmt::format(" {}={}", trackerField, encodeName(request.tracker));
   }
   if (!request.exporter.empty()) {
      text += fmt::format(" {}={}", exporterField, encodeName(request.exporter));
   }
   return text + '\n';
}

std::optional<ClearRequest> parseRequest(std::string_view text, Kel::String* error) {
   if (text.ends_with('\n')) {
      text.remove_suffix(1);
   }
   if (text.empty()) {
      fail(error, "empty request");
      return std::nullopt;
   }
   // Printable ASCII only: names arrive percent-encoded, so anything else is
   // no request of ours.
   if (!std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; })) {
      fail(error, "the request must be one line of printable ASCII");
      return std::nullopt;
   }
   std::vector<std::string_view> words;
   for (std::size_t begin = 0;;) {
      const std::size_t end = text.find(' ', begin);
      words.push_back(text.substr(begin, end == std::string_view::npos ? end : end - begin));
      if (end == std::string_view::npos) {
         break;
      }
      begin = end + 1;
   }
   if (words.front() != clearCommand) {
      fail(error, fmt::format("unknown command '{}': expected 'clear'", shownText(words.front())));
      return std::nullopt;
   }
   ClearRequest request;
   bool seenTracker = false;
   bool seenExporter = false;
   for (std::size_t i = 1; i < words.size(); ++i) {
      const std::string_view word = words[i];
      if (word.empty()) {
         fail(error, "malformed request: fields are separated by single spaces");
         return std::nullopt;
      }
      const std::size_t eq = word.find('=');
      const std::string_view key = word.substr(0, eq);
      Kel::Name* target = nullptr;
      bool* seen = nullptr;
      if (key == trackerField) {
         target = &request.tracker;
         seen = &seenTracker;
      } else if (key == exporterField) {
         target = &request.exporter;
         seen = &seenExporter;
      } else {
         fail(error,
              fmt::format("unknown field '{}': expected tracker= or exporter=", shownText(key)));
         return std::nullopt;
      }
      if (eq == std::string_view::npos) {
         fail(error, fmt::format("field '{}' has no '=' and value", key));
         return std::nullopt;
      }
      if (*seen) {
         fail(error, fmt::format("field '{}' given twice", key));
         return std::nullopt;
      }
      *seen = true;
      const auto name = decodeName(word.substr(eq + 1));
      if (!name) {
         fail(error, fmt::format("field '{}': the name is not percent-encoded correctly", key));
         return std::nullopt;
      }
      if (name->empty()) {
         fail(error, fmt::format("field '{}': empty name", key));
         return std::nullopt;
      }
      *target = *name;
   }
   if (const auto problem = requestProblem(request)) {
      fail(error, *problem);
      return std::nullopt;
   }
   return request;
}

Kel::String okReply() {
   return fmt::format("{}\n", okText);
}

Kel::String errorReply(std::string_view message) {
   const auto printable = [](char c) { return c >= ' ' && c != '\x7f'; };
   Kel::String text = fmt::format("{}{}", errorPrefix, escaped(message, printable));
   if (text.size() >= maxMessageLength) {
      text.resize(maxMessageLength - 4);
      text += "...";
   }
   return text + '\n';
}

std::optional<Reply> parseReply(std::string_view text) {
   if (!text.ends_with('\n')) {
      return std::nullopt;
   }
   text.remove_suffix(1);
   if (text == okText) {
      return Reply{true, {}};
   }
   if (text.starts_with(errorPrefix) && text.find('\n') == std::string_view::npos) {
      return Reply{false, Kel::String(text.substr(errorPrefix.size()))};
   }
   return std::nullopt;
}

Kel::String encodeName(std::string_view name) {
   return escaped(name, isUnreserved);
}

std::optional<Kel::String> decodeName(std::string_view text) {
   Kel::String name;
   name.reserve(text.size());
   for (std::size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      if (isUnreserved(c)) {
         name += c;
         continue;
      }
      if (c != '%' || text.size() - i < 3) {
         return std::nullopt;
      }
      const int high = hexValue(text[i + 1]);
      const int low = hexValue(text[i + 2]);
      if (high < 0 || low < 0) {
         return std::nullopt;
      }
      name += static_cast<char>(high * 16 + low);
      i += 2;
   }
   return name;
}

}  // namespace Control
