#include "ConfigError.h"

#include <fmt/format.h>

namespace Agent {

Kel::String ConfigError::str() const {
   const Kel::String where = line > 0 ? fmt::format("{}:{}", fileName, line) : fileName;
   return path.empty() ? fmt::format("{}: {}", where, message)
                       : fmt::format("{}: {}: {}", where, path, message);
}

}  // namespace Agent
