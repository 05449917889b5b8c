#pragma once

#include <string>
#include <string_view>

namespace IpfixStats {

// `bytes` as well-formed UTF-8: every octet that does not begin a well-formed
// sequence (a stray continuation, a truncated, overlong or surrogate
// sequence, a code point past U+10FFFF) becomes U+FFFD. Names in the table
// are whatever octets the writer stored, and formats such as OpenMetrics must
// be UTF-8 throughout.
std::string validUtf8(std::string_view bytes);

}  // namespace IpfixStats
