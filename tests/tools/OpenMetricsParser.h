#pragma once

#include <unistd.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "support/ChildProcess.h"

namespace TestSupport {

using MetricLabels = std::map<std::string, std::string>;

// "name{label=value,...}" with the labels in name order: one sample's
// identity, the same however the exposition ordered its labels.
inline std::string sampleKey(const std::string& name, const MetricLabels& labels) {
   std::string key = name + "{";
   for (const auto& [label, value] : labels) {
      key += (key.back() == '{' ? "" : ",") + label + "=" + value;
   }
   return key + "}";
}

// An exposition as prometheus_client's OpenMetrics parser (an implementation
// independent of ours, run by tests/tools/openmetrics_samples.py) reads it.
struct ParsedMetrics {
   // The parser's reason when it rejected the text; empty when it accepted it.
   std::string error;
   // Per family: its type, unit and help.
   std::map<std::string, nlohmann::json> families;
   // By sampleKey().
   std::map<std::string, double> samples;
};

inline ParsedMetrics parseOpenMetrics(const std::string& text) {
   const std::string path = ::testing::TempDir() + "/openmetrics-" + std::to_string(::getpid());
   std::ofstream(path, std::ios::binary) << text;
   const ChildProcess::Result result = ChildProcess::run({PYTHON3_PATH, OPENMETRICS_PARSER, path});
   ::unlink(path.c_str());
   ParsedMetrics parsed;
   if (result.exitCode != 0) {
      parsed.error = result.err.empty() ? "the parser failed" : result.err;
      return parsed;
   }
   const nlohmann::json read = nlohmann::json::parse(result.out);
   for (const auto& family : read["families"]) {
      parsed.families[family["name"]] = family;
   }
   for (const auto& sample : read["samples"]) {
      parsed.samples[sampleKey(sample["name"], sample["labels"].get<MetricLabels>())] =
          sample["value"].get<double>();
   }
   return parsed;
}

}  // namespace TestSupport
