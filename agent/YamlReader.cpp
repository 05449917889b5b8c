#include "YamlReader.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <yaml-cpp/eventhandler.h>

#include <algorithm>
#include <charconv>
#include <sstream>

namespace Agent {

namespace {

bool looksNumeric(const Kel::String& s) {
   return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
      return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.';
   });
}

// Documents counted before a file is called one with too many: the count only
// has to tell one from several.
constexpr int documentCountLimit = 100;

// Receives a document's events and drops them: counting documents needs only
// the parse.
class IgnoredEvents : public YAML::EventHandler {
 public:
   void OnDocumentStart(const YAML::Mark&) override {}
   void OnDocumentEnd() override {}
   void OnNull(const YAML::Mark&, YAML::anchor_t) override {}
   void OnAlias(const YAML::Mark&, YAML::anchor_t) override {}
   void OnScalar(const YAML::Mark&, const std::string&, YAML::anchor_t,
                 const std::string&) override {}
   void OnSequenceStart(const YAML::Mark&, const std::string&, YAML::anchor_t,
                        YAML::EmitterStyle::value) override {}
   void OnSequenceEnd() override {}
   void OnMapStart(const YAML::Mark&, const std::string&, YAML::anchor_t,
                   YAML::EmitterStyle::value) override {}
   void OnMapEnd() override {}
};

// The documents in `text`, at most documentCountLimit. Not YAML::LoadAll:
// on some malformed text (", f" and the like) its parser keeps yielding
// empty documents without reading on, and LoadAll collects them until memory
// runs out. Throws what the parser throws.
int countDocuments(const Kel::String& text) {
   std::istringstream in(text);
   YAML::Parser parser(in);
   IgnoredEvents events;
   int count = 0;
   while (count < documentCountLimit && parser.HandleNextDocument(events)) {
      ++count;
   }
   return count;
}

}  // namespace

Kel::String YamlReader::describe(const YAML::Node& node) {
   switch (node.Type()) {
      case YAML::NodeType::Map:
         return "a mapping";
      case YAML::NodeType::Sequence:
         return "a list";
      case YAML::NodeType::Scalar:
         return looksNumeric(node.Scalar()) ? node.Scalar() : "\"" + node.Scalar() + "\"";
      default:
         return "empty";
   }
}

Kel::String YamlReader::join(const Kel::String& path, std::string_view key) {
   return path.empty() ? Kel::String(key) : path + "." + Kel::String(key);
}

std::optional<YamlValue> YamlReader::document(const Kel::String& text) {
   YAML::Node document;
   int documents = 0;
   try {
      documents = countDocuments(text);
      if (documents == 1) {
         document = YAML::Load(text);
      }
   } catch (const YAML::ParserException& e) {
      errors_.push_back({fileName_, e.mark.line + 1, "", "YAML syntax error: " + e.msg});
      return std::nullopt;
   } catch (const YAML::Exception& e) {
      errors_.push_back({fileName_, 0, "", Kel::String("YAML error: ") + e.what()});
      return std::nullopt;
   }
   if (documents != 1) {
      errors_.push_back(
          {fileName_, 1, "",
           documents < documentCountLimit
               ? fmt::format("must hold one YAML document, not {}", documents)
               : fmt::format("must hold one YAML document, not {} or more", documentCountLimit)});
      return std::nullopt;
   }
   return YamlValue{document, "", document.Mark().line + 1};
}

void YamlReader::error(const YamlValue& at, Kel::String message) {
   errors_.push_back({fileName_, std::max(at.line, 1), at.path, std::move(message)});
}

std::optional<YamlMapping> YamlReader::mapping(const YamlValue& v,
                                               std::initializer_list<std::string_view> keys) {
   if (!v.node.IsMap()) {
      error(v, "must be a mapping, not " + describe(v.node));
      return std::nullopt;
   }
   YamlMapping m(*this, v);
   for (const auto& entry : v.node) {
      const YAML::Node& key = entry.first;
      const int line = key.Mark().line + 1;
      if (!key.IsScalar()) {
         error({key, v.path, line}, "keys must be plain names, not " + describe(key));
         continue;
      }
      YamlValue value{entry.second, join(v.path, key.Scalar()), line};
      if (std::find(keys.begin(), keys.end(), key.Scalar()) == keys.end()) {
         error(value, fmt::format("unknown key (expected one of: {})", fmt::join(keys, ", ")));
      } else if (m.get(key.Scalar())) {
         error(value, "repeated key");
      } else {
         m.entries_.emplace_back(key.Scalar(), std::move(value));
      }
   }
   return m;
}

std::vector<YamlValue> YamlReader::list(const YamlValue& v) {
   std::vector<YamlValue> items;
   if (v.node.IsNull()) {
      return items;
   }
   if (!v.node.IsSequence()) {
      error(v, "must be a list, not " + describe(v.node));
      return items;
   }
   for (std::size_t i = 0; i < v.node.size(); ++i) {
      const YAML::Node item = v.node[i];
      items.push_back({item, fmt::format("{}[{}]", v.path, i), item.Mark().line + 1});
   }
   return items;
}

std::optional<Kel::String> YamlReader::scalar(const YamlValue& v, std::string_view what) {
   if (!v.node.IsScalar()) {
      error(v, fmt::format("must be {}, not {}", what, describe(v.node)));
      return std::nullopt;
   }
   return v.node.Scalar();
}

std::optional<Kel::String> YamlReader::text(const YamlValue& v, Kel::U32 maxLength) {
   auto s = scalar(v, "a text");
   if (!s) {
      return std::nullopt;
   }
   if (s->empty()) {
      error(v, "must not be empty");
      return std::nullopt;
   }
   if (s->size() > maxLength) {
      error(v, fmt::format("must be at most {} octets long, not {}", maxLength, s->size()));
      return std::nullopt;
   }
   return s;
}

std::optional<Kel::U64> YamlReader::integer(const YamlValue& v, Kel::U64 min, Kel::U64 max,
                                            std::string_view what) {
   const Kel::String expected = fmt::format("{} from {} to {}", what, min, max);
   auto s = scalar(v, expected);
   if (!s) {
      return std::nullopt;
   }
   Kel::U64 value = 0;
   const auto [end, ec] = std::from_chars(s->data(), s->data() + s->size(), value);
   if (s->empty() || ec != std::errc() || end != s->data() + s->size() || value < min ||
       value > max) {
      error(v, fmt::format("must be {}, not {}", expected, describe(v.node)));
      return std::nullopt;
   }
   return value;
}

std::optional<bool> YamlReader::boolean(const YamlValue& v) {
   auto s = scalar(v, "true or false");
   if (!s) {
      return std::nullopt;
   }
   if (*s == "true" || *s == "True" || *s == "TRUE") {
      return true;
   }
   if (*s == "false" || *s == "False" || *s == "FALSE") {
      return false;
   }
   error(v, "must be true or false, not " + describe(v.node));
   return std::nullopt;
}

std::optional<YamlValue> YamlMapping::get(std::string_view key) const {
   for (const auto& [name, value] : entries_) {
      if (name == key) {
         return value;
      }
   }
   return std::nullopt;
}

std::optional<YamlValue> YamlMapping::require(std::string_view key) const {
   auto v = get(key);
   if (!v) {
      reader_->error(value_, fmt::format("{} is required", key));
   }
   return v;
}

}  // namespace Agent
