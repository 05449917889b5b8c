#pragma once

#include <compare>
#include <optional>
#include <string_view>

#include "Ipfix/CollectorStatsIndex.h"
#include "Nivel/Addr.h"

namespace Vorpa::Ipfix {

// A collector's address and port, as part of a statistics key. Not the
// exporter's per-collector record (FlowTracking::CollectorInfo). Other
// processes read these bytes, so the layout is our own: the family, the port,
// and sixteen address octets in network order (an IPv4 address in the first
// four, the rest zero).
class CollectorInfo {
 public:
   enum class Family : Kel::U8 { ipv4 = 4, ipv6 = 6 };

   CollectorInfo() = default;
   CollectorInfo(const Nivel::IpGenAddr& addr, Nivel::Port port);
   static CollectorInfo fromIpAndPort(const Nivel::IpAndPort& collector);
   static CollectorInfo fromIp6AndPort(const Nivel::Ip6AndPort& collector);

   Nivel::IpGenAddr addr() const;
   Nivel::Port port() const { return port_; }

   // "192.0.2.1:4739", "[2001:db8::1]:4739"
   Kel::String stringValue() const;
   Kel::String string() const;
   // The stringValue() form; nullopt when it is not one.
   static std::optional<CollectorInfo> parse(std::string_view text);

   Kel::U64 hash() const;
   // False for a family byte of neither family, read from a corrupt table.
   bool vorpaValid() const { return family_ == Family::ipv4 || family_ == Family::ipv6; }
   bool operator==(const CollectorInfo&) const = default;
   // IPv4 before IPv6, then by address, then by port.
   std::strong_ordering operator<=>(const CollectorInfo& other) const;

 private:
   friend struct StatisticsLayout;

   Family family_ = Family::ipv4;
   Kel::U8 reserved_ = 0;
   Nivel::Port port_ = 0;
   std::array<Kel::U8, 16> address_{};
};

using NameStorage = IndexedArray<Kel::U8, StringIndex>;

// The statistics key: which collector of which exporter of which tracker. The
// names are stored inline (at most 128 octets each) so that the key is a plain
// value, laid out as StatisticsLayout (CollectorStatsEntry.cpp) checks.
class CollectorStatisticsKey {
 public:
   CollectorStatisticsKey() = default;
   CollectorStatisticsKey(const Kel::String& tracker, const Kel::String& exporter,
                          const CollectorInfo& collector);

   const CollectorInfo& collector() const { return collector_; }
   Kel::String tracker() const { return text(trackerStorage_); }
   Kel::String exporter() const { return text(exporterStorage_); }
   // Asserts "sz <= StringIndex::max() + 1".
   void trackerIs(const Kel::String& tracker) { textIs(trackerStorage_, tracker); }
   void exporterIs(const Kel::String& exporter) { textIs(exporterStorage_, exporter); }

   // "tracker exporter collector"
   Kel::String vorpaString() const;
   Kel::String string() const;
   // Always throws Kel::Exception: the key holds collections.
   static CollectorStatisticsKey parse(std::string_view text);

   bool vorpaValid() const {
      return collector_.vorpaValid() && trackerStorage_.vorpaValid() &&
             exporterStorage_.vorpaValid();
   }
   Kel::U64 hash() const;
   bool operator==(const CollectorStatisticsKey&) const = default;
   // By tracker, then exporter, then collector: the order of listings.
   std::strong_ordering operator<=>(const CollectorStatisticsKey& other) const;

 private:
   friend struct StatisticsLayout;

   static Kel::String text(const NameStorage& storage);
   static void textIs(NameStorage& storage, const Kel::String& text);

   CollectorInfo collector_;
   NameStorage trackerStorage_;
   NameStorage exporterStorage_;
};

}  // namespace Vorpa::Ipfix

template <>
struct std::hash<Vorpa::Ipfix::CollectorInfo> {
   std::size_t operator()(const Vorpa::Ipfix::CollectorInfo& c) const noexcept { return c.hash(); }
};

template <>
struct std::hash<Vorpa::Ipfix::CollectorStatisticsKey> {
   std::size_t operator()(const Vorpa::Ipfix::CollectorStatisticsKey& k) const noexcept {
      return k.hash();
   }
};
