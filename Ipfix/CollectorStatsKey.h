#pragma once

#include <compare>
#include <optional>
#include <string_view>

#include "Ipfix/CollectorStatsIndex.h"
#include "Nivel/Addr.h"

namespace Vorpa::Ipfix {

// A collector's address and port, as part of a statistics key. Not the
// exporter's per-collector record (FlowTracking::CollectorInfo).
class CollectorInfo {
 public:
   CollectorInfo() = default;
   CollectorInfo(const Nivel::IpGenAddr& addr, Nivel::Port port) : addr_(addr), port_(port) {}
   static CollectorInfo fromIpAndPort(const Nivel::IpAndPort& collector);
   static CollectorInfo fromIp6AndPort(const Nivel::Ip6AndPort& collector);

   const Nivel::IpGenAddr& addr() const { return addr_; }
   Nivel::Port port() const { return port_; }

   // "192.0.2.1:4739", "[2001:db8::1]:4739"
   Kel::String stringValue() const;
   Kel::String string() const;
   // The stringValue() form; nullopt when it is not one.
   static std::optional<CollectorInfo> parse(std::string_view text);

   Kel::U64 hash() const;
   // False for an address of no family, read from a corrupt table.
   bool vorpaValid() const { return addr_.valid(); }
   bool operator==(const CollectorInfo&) const = default;
   auto operator<=>(const CollectorInfo&) const = default;

 private:
   Nivel::IpGenAddr addr_;
   Nivel::Port port_ = 0;
};

using NameStorage = IndexedArray<Kel::U8, StringIndex>;

// The statistics key: which collector of which exporter of which tracker. The
// names are stored inline (at most 128 octets each) so that the key is a plain
// value.
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
