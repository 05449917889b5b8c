#include "Utf8.h"

namespace IpfixStats {

namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";

bool continuation(unsigned char c) {
   return (c & 0xC0) == 0x80;
}

// The length of the well-formed sequence at the start of `s`, 0 for none. The
// second octet's range rules out overlong forms, surrogates and code points
// past U+10FFFF (the table of well-formed sequences of the Unicode standard).
std::size_t sequenceLength(std::string_view s) {
   const auto at = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
   const unsigned char lead = at(0);
   if (lead < 0x80) {
      return 1;
   }
   std::size_t length = 0;
   unsigned char low = 0x80;
   unsigned char high = 0xBF;
   if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
   } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      low = lead == 0xE0 ? 0xA0 : 0x80;
      high = lead == 0xED ? 0x9F : 0xBF;
   } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      low = lead == 0xF0 ? 0x90 : 0x80;
      high = lead == 0xF4 ? 0x8F : 0xBF;
   } else {
      return 0;
   }
   if (s.size() < length || at(1) < low || at(1) > high) {
      return 0;
   }
   for (std::size_t i = 2; i < length; ++i) {
      if (!continuation(at(i))) {
         return 0;
      }
   }
   return length;
}

}  // namespace

std::string validUtf8(std::string_view bytes) {
   std::string out;
   out.reserve(bytes.size());
   while (!bytes.empty()) {
      const std::size_t length = sequenceLength(bytes);
      if (length == 0) {
         out += replacement;
         bytes.remove_prefix(1);
      } else {
         out += bytes.substr(0, length);
         bytes.remove_prefix(length);
      }
   }
   return out;
}

}  // namespace IpfixStats
