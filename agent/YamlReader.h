#pragma once

#include <yaml-cpp/yaml.h>

#include <initializer_list>
#include <optional>
#include <string_view>
#include <vector>

#include "ConfigError.h"

// Typed, located reads from a parsed YAML document. Every read that fails
// records an error naming the file, the line and the path of the value and
// returns nothing, so a schema reads on after a bad value and reports every
// error of the file in one pass.
namespace Agent {

// A value of the document with where it stands: the path from the top and the
// line of its key (or of its list item), which is where an operator looks.
struct YamlValue {
   YAML::Node node;
   Kel::String path;
   int line = 0;
};

class YamlReader;

// A mapping whose keys have been checked against the schema's: unknown and
// repeated keys are reported when it is read.
class YamlMapping {
 public:
   // The value under `key`, if the mapping has it.
   std::optional<YamlValue> get(std::string_view key) const;
   // The same, reporting "is required" at the mapping's line when absent.
   std::optional<YamlValue> require(std::string_view key) const;
   const YamlValue& value() const { return value_; }

 private:
   friend class YamlReader;
   YamlMapping(YamlReader& reader, YamlValue value) : reader_(&reader), value_(std::move(value)) {}

   YamlReader* reader_;
   YamlValue value_;
   std::vector<std::pair<Kel::String, YamlValue>> entries_;
};

class YamlReader {
 public:
   explicit YamlReader(Kel::String fileName) : fileName_(std::move(fileName)) {}

   // The document of `text`, or nothing after recording why not (a syntax
   // error, no document, several documents).
   std::optional<YamlValue> document(const Kel::String& text);

   void error(const YamlValue& at, Kel::String message);
   const ConfigErrors& errors() const { return errors_; }

   std::optional<YamlMapping> mapping(const YamlValue& v,
                                      std::initializer_list<std::string_view> keys);
   // The items of a list; an empty value is an empty list.
   std::vector<YamlValue> list(const YamlValue& v);
   // A non-empty text of at most `maxLength` octets.
   std::optional<Kel::String> text(const YamlValue& v, Kel::U32 maxLength);
   // A decimal integer from `min` to `max`; `what` names it in the error
   // ("must be a UDP port from 1 to 65535, not 0").
   std::optional<Kel::U64> integer(const YamlValue& v, Kel::U64 min, Kel::U64 max,
                                   std::string_view what);
   std::optional<bool> boolean(const YamlValue& v);
   // Any scalar, reporting "must be <what>, not ..." for anything else.
   std::optional<Kel::String> scalar(const YamlValue& v, std::string_view what);

   // How a value reads in an error: 70, "abc", a list, a mapping, empty.
   static Kel::String describe(const YAML::Node& node);
   static Kel::String join(const Kel::String& path, std::string_view key);

 private:
   Kel::String fileName_;
   ConfigErrors errors_;
};

}  // namespace Agent
