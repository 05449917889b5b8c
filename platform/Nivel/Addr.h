#pragma once

#include <fmt/format.h>
#include <netinet/in.h>

#include <array>
#include <compare>
#include <cstring>
#include <optional>
#include <string_view>
#include <variant>

#include "Kel/Types.h"

namespace Nivel {

using Port = Kel::U16;
// The whole IPv4 ToS / IPv6 traffic-class byte (DSCP in its upper six bits).
using DscpValue = Kel::U8;
// An interface's name, such as "Ethernet1".
using IntfId = Kel::Name;

class IpAddr {
 public:
   constexpr IpAddr() = default;
   // From a value in host byte order: 0x7f000001 is 127.0.0.1.
   constexpr explicit IpAddr(Kel::U32 hostOrder) : value_(hostOrder) {}
   // Dotted-quad text; nullopt when it is not one.
   static std::optional<IpAddr> parse(std::string_view text);

   constexpr Kel::U32 value() const { return value_; }
   in_addr inAddr() const;
   Kel::String str() const;
   constexpr bool isUnspecified() const { return value_ == 0; }
   constexpr auto operator<=>(const IpAddr&) const = default;

 private:
   Kel::U32 value_ = 0;
};

class Ip6Addr {
 public:
   constexpr Ip6Addr() = default;
   explicit Ip6Addr(const in6_addr& a);
   // RFC 5952-style text (inet_pton forms); nullopt when it is not one.
   static std::optional<Ip6Addr> parse(std::string_view text);

   const std::array<Kel::U8, 16>& bytes() const { return bytes_; }
   in6_addr in6Addr() const;
   Kel::String str() const;
   bool isUnspecified() const {
      Kel::U64 words[2];
      std::memcpy(words, bytes_.data(), sizeof words);
      return (words[0] | words[1]) == 0;
   }
   constexpr auto operator<=>(const Ip6Addr&) const = default;

 private:
   std::array<Kel::U8, 16> bytes_{};
};

// Either family.
class IpGenAddr {
 public:
   IpGenAddr() = default;
   IpGenAddr(IpAddr a) : addr_(a) {}
   IpGenAddr(Ip6Addr a) : addr_(a) {}
   // Either family's text form.
   static std::optional<IpGenAddr> parse(std::string_view text);

   bool isV4() const { return std::holds_alternative<IpAddr>(addr_); }
   IpAddr v4() const { return std::get<IpAddr>(addr_); }
   Ip6Addr v6() const { return std::get<Ip6Addr>(addr_); }
   Kel::String str() const;
   // False when the family is neither, which only an address copied as
   // bytes from another process's memory (a shared table) can be: every
   // other accessor then throws or is undefined, so such readers check this.
   bool valid() const { return addr_.index() < std::variant_size_v<decltype(addr_)>; }
   auto operator<=>(const IpGenAddr&) const = default;

 private:
   std::variant<IpAddr, Ip6Addr> addr_;
};

struct IpAndPort {
   IpAddr ip;
   Port port = 0;
   // "192.0.2.1:4739"
   Kel::String str() const;
   static std::optional<IpAndPort> parse(std::string_view text);
   auto operator<=>(const IpAndPort&) const = default;
};

struct Ip6AndPort {
   Ip6Addr ip;
   Port port = 0;
   // "[2001:db8::1]:4739"
   Kel::String str() const;
   static std::optional<Ip6AndPort> parse(std::string_view text);
   auto operator<=>(const Ip6AndPort&) const = default;
};

std::optional<Port> parsePort(std::string_view text);

}  // namespace Nivel

// Text forms for traces and messages.
template <class T>
requires std::is_same_v<T, Nivel::IpAddr> || std::is_same_v<T, Nivel::Ip6Addr> ||
    std::is_same_v<T, Nivel::IpGenAddr> || std::is_same_v<T, Nivel::IpAndPort> ||
    std::is_same_v<T, Nivel::Ip6AndPort>
struct fmt::formatter<T> : fmt::formatter<std::string_view> {
   auto format(const T& v, fmt::format_context& ctx) const {
      return fmt::formatter<std::string_view>::format(v.str(), ctx);
   }
};
