#include "Ipfix/CollectorStatsKey.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "Vorpa/Hash.h"

namespace Vorpa::Ipfix {

namespace {

// Whole words, reading past the used length into the zeroed rest of the
// array; the length goes in too, so that ("ab", "c") and ("a", "bc") differ.
Kel::U64 hashName(const NameStorage& name, Kel::U64 hash) {
   static_assert(NameStorage::capacity % 8 == 0);
   const Kel::U64 length = name.size();
   return hashWords(name.all().data(), (length + 7) / 8, hashWords(&length, 1, hash));
}

}  // namespace

CollectorInfo::CollectorInfo(const Nivel::IpGenAddr& addr, Nivel::Port port) : port_(port) {
   if (addr.isV4()) {
      const Kel::U32 v4 = addr.v4().value();
      address_ = {Kel::U8(v4 >> 24), Kel::U8(v4 >> 16), Kel::U8(v4 >> 8), Kel::U8(v4)};
   } else {
      family_ = Family::ipv6;
      address_ = addr.v6().bytes();
   }
}

Nivel::IpGenAddr CollectorInfo::addr() const {
   if (family_ == Family::ipv4) {
      return Nivel::IpAddr(Kel::U32(address_[0]) << 24 | Kel::U32(address_[1]) << 16 |
                           Kel::U32(address_[2]) << 8 | address_[3]);
   }
   in6_addr a;
   std::memcpy(&a, address_.data(), sizeof a);
   return Nivel::Ip6Addr(a);
}

std::strong_ordering CollectorInfo::operator<=>(const CollectorInfo& other) const {
   if (const auto c = family_ <=> other.family_; c != 0) {
      return c;
   }
   if (const auto c = address_ <=> other.address_; c != 0) {
      return c;
   }
   return port_ <=> other.port_;
}

CollectorInfo CollectorInfo::fromIpAndPort(const Nivel::IpAndPort& collector) {
   return CollectorInfo(collector.ip, collector.port);
}

CollectorInfo CollectorInfo::fromIp6AndPort(const Nivel::Ip6AndPort& collector) {
   return CollectorInfo(collector.ip, collector.port);
}

Kel::String CollectorInfo::stringValue() const {
   const Nivel::IpGenAddr a = addr();
   return a.isV4() ? Nivel::IpAndPort{a.v4(), port_}.str() : Nivel::Ip6AndPort{a.v6(), port_}.str();
}

Kel::String CollectorInfo::string() const {
   return fmt::format("Value('Vorpa::Ipfix::CollectorInfo', ** {{'addr': {}, 'port': {}}})",
                      addr().str(), port_);
}

Kel::U64 CollectorInfo::hash() const {
   Kel::U64 words[3] = {Kel::U64(port_) | Kel::U64(family_) << 16, 0, 0};
   std::memcpy(&words[1], address_.data(), address_.size());
   return hashWords(words, 3, 0xcbf29ce484222325ULL);
}

std::optional<CollectorInfo> CollectorInfo::parse(std::string_view text) {
   if (const auto v4 = Nivel::IpAndPort::parse(text)) {
      return fromIpAndPort(*v4);
   }
   if (const auto v6 = Nivel::Ip6AndPort::parse(text)) {
      return fromIp6AndPort(*v6);
   }
   return std::nullopt;
}

CollectorStatisticsKey::CollectorStatisticsKey(const Kel::String& tracker,
                                               const Kel::String& exporter,
                                               const CollectorInfo& collector)
    : collector_(collector) {
   trackerIs(tracker);
   exporterIs(exporter);
}

Kel::String CollectorStatisticsKey::text(const NameStorage& storage) {
   const auto used = storage.used();
   return Kel::String(used.begin(), used.end());
}

void CollectorStatisticsKey::textIs(NameStorage& storage, const Kel::String& text) {
   const std::size_t sz = text.size();
   KEL_ASSERT(sz <= StringIndex::max() + 1);
   storage.sizeIs(sz);
   for (std::size_t i = 0; i < sz; ++i) {
      storage[StringIndex(i)] = static_cast<Kel::U8>(text[i]);
   }
}

Kel::String CollectorStatisticsKey::vorpaString() const {
   return fmt::format("{} {} {}", tracker(), exporter(), collector_.stringValue());
}

Kel::String CollectorStatisticsKey::string() const {
   return fmt::format(
       "Value('Vorpa::Ipfix::CollectorStatisticsKey', ** {{'collector': {}, 'trackerStorage': {}, "
       "'exporterStorage': {}}})",
       collector_.string(), tracker(), exporter());
}

CollectorStatisticsKey CollectorStatisticsKey::parse(std::string_view) {
   throw Kel::Exception("No String constructor for CollectorStatisticsKey - has collection");
}

Kel::U64 CollectorStatisticsKey::hash() const {
   return hashName(exporterStorage_, hashName(trackerStorage_, collector_.hash()));
}

std::strong_ordering CollectorStatisticsKey::operator<=>(
    const CollectorStatisticsKey& other) const {
   const auto names = [](const NameStorage& a, const NameStorage& b) {
      return std::lexicographical_compare_three_way(a.used().begin(), a.used().end(),
                                                    b.used().begin(), b.used().end());
   };
   if (const auto c = names(trackerStorage_, other.trackerStorage_); c != 0) {
      return c;
   }
   if (const auto c = names(exporterStorage_, other.exporterStorage_); c != 0) {
      return c;
   }
   return collector_ <=> other.collector_;
}

}  // namespace Vorpa::Ipfix
