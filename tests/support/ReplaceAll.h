#pragma once

#include <string>

namespace TestSupport {

// `text` with every occurrence of `from` replaced by `to`. The tests edit
// texts with this rather than std::regex, whose g++ 12 headers do not build
// under the sanitizers with warnings as errors.
inline std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
   for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
      text.replace(at, from.size(), to);
   }
   return text;
}

}  // namespace TestSupport
