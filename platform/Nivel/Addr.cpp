#include "Nivel/Addr.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstring>

namespace Nivel {

namespace {

// inet_pton needs a terminated string; addresses are short.
template <class Out>
bool presentationToNetwork(int family, std::string_view text, Out* out) {
   char buf[INET6_ADDRSTRLEN + 1];
   if (text.empty() || text.size() >= sizeof buf) {
      return false;
   }
   std::memcpy(buf, text.data(), text.size());
   buf[text.size()] = '\0';
   return inet_pton(family, buf, out) == 1;
}

}  // namespace

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
   in_addr a{};
   if (!presentationToNetwork(AF_INET, text, &a)) {
      return std::nullopt;
   }
   return IpAddr(ntohl(a.s_addr));
}

in_addr IpAddr::inAddr() const {
   return in_addr{htonl(value_)};
}

Kel::String IpAddr::str() const {
   return fmt::format("{}.{}.{}.{}", value_ >> 24, (value_ >> 16) & 0xff, (value_ >> 8) & 0xff,
                      value_ & 0xff);
}

Ip6Addr::Ip6Addr(const in6_addr& a) {
   std::memcpy(bytes_.data(), a.s6_addr, 16);
}

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view text) {
   in6_addr a{};
   if (!presentationToNetwork(AF_INET6, text, &a)) {
      return std::nullopt;
   }
   return Ip6Addr(a);
}

in6_addr Ip6Addr::in6Addr() const {
   in6_addr a{};
   std::memcpy(a.s6_addr, bytes_.data(), 16);
   return a;
}

Kel::String Ip6Addr::str() const {
   char buf[INET6_ADDRSTRLEN];
   const in6_addr a = in6Addr();
   return inet_ntop(AF_INET6, &a, buf, sizeof buf);
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
   if (auto a = IpAddr::parse(text)) {
      return IpGenAddr(*a);
   }
   if (auto a = Ip6Addr::parse(text)) {
      return IpGenAddr(*a);
   }
   return std::nullopt;
}

Kel::String IpGenAddr::str() const {
   return isV4() ? v4().str() : v6().str();
}

std::optional<Port> parsePort(std::string_view text) {
   unsigned value = 0;
   const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
   if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value > 65535) {
      return std::nullopt;
   }
   return static_cast<Port>(value);
}

Kel::String IpAndPort::str() const {
   return fmt::format("{}:{}", ip.str(), port);
}

std::optional<IpAndPort> IpAndPort::parse(std::string_view text) {
   const auto colon = text.rfind(':');
   if (colon == std::string_view::npos) {
      return std::nullopt;
   }
   const auto ip = IpAddr::parse(text.substr(0, colon));
   const auto port = parsePort(text.substr(colon + 1));
   if (!ip || !port) {
      return std::nullopt;
   }
   return IpAndPort{*ip, *port};
}

Kel::String Ip6AndPort::str() const {
   return fmt::format("[{}]:{}", ip.str(), port);
}

std::optional<Ip6AndPort> Ip6AndPort::parse(std::string_view text) {
   const auto close = text.rfind("]:");
   if (text.empty() || text.front() != '[' || close == std::string_view::npos) {
      return std::nullopt;
   }
   const auto ip = Ip6Addr::parse(text.substr(1, close - 1));
   const auto port = parsePort(text.substr(close + 2));
   if (!ip || !port) {
      return std::nullopt;
   }
   return Ip6AndPort{*ip, *port};
}

}  // namespace Nivel
