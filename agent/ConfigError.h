#pragma once

#include <vector>

#include "Kel/Types.h"

namespace Agent {

// One thing wrong with a configuration file, located for the operator.
struct ConfigError {
   Kel::String fileName;
   // From 1; 0 when the error concerns the file as a whole (it cannot be read).
   int line = 0;
   // Where in the document, as "flow-tracking.hardware.trackers[0].id"; empty
   // for errors that precede the document's structure (syntax errors).
   Kel::String path;
   Kel::String message;

   // "demo.yaml:14: flow-tracking.hardware.trackers[0].exporters[1].dscp: must be ..."
   Kel::String str() const;
   bool operator==(const ConfigError&) const = default;
};

using ConfigErrors = std::vector<ConfigError>;

}  // namespace Agent
