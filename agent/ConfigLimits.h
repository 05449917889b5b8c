#pragma once

#include "FlowTracking/Constants.h"
#include "Ipfix/OptionsDataExporterSm.h"
#include "Kel/Types.h"

// The bounds the configuration file is checked against, each derived from the
// place where the value ends up, so that no value from the file can reach an
// assertion of the library.
namespace Agent::Limits {

// Tracker, exporter and collector names are part of the collector statistics
// key; 63 octets leave that key room to spare. Tracker names are also written
// into the flow-tracker table records, which take names below 255 octets.
inline constexpr Kel::U32 maxKeyNameLength = 63;

// Interface and VRF names, as the VRF id map stores them; the interface and
// VRF table records take names below 255 octets.
inline constexpr Kel::U32 maxTableNameLength = 100;

// The statistics table's shared-memory name.
inline constexpr Kel::U32 maxStatisticsTableLength = 100;

// The exporter sends messages of at most MTU - 48 octets (room for an IPv6
// and a UDP header). One message must hold at least the message header (16),
// one set header (4) and the largest options data record: an interface or VRF
// record, 5 octets plus its name.
inline constexpr Kel::U32 minMtu =
    FlowTracking::ipAndUdpHeaderRoom + 16 + 4 + 5 + maxTableNameLength;
inline constexpr Kel::U32 maxMtu = 65535;

// DSCP is a six-bit code point.
inline constexpr Kel::U32 maxDscp = 63;

// Intervals are resent periods in whole seconds, so below one second they
// would be zero. The tracker's timers go into 16-bit second fields of the
// flow-tracker table, which take values below 65535.
inline constexpr Kel::U32 minIntervalMs = 1000;
inline constexpr Kel::U32 maxTrackerTimerMs = 65534000;

// Data sets start at 256; the top ids belong to the options templates.
inline constexpr Kel::U32 minDataTemplateId = 256;
constexpr Kel::U32 maxDataTemplateId() {
   Kel::U32 id = Kel::maxU16();
   while (FlowTracking::Constants::isReservedTemplateId(static_cast<Kel::U16>(id))) {
      --id;
   }
   return id;
}

// A sanity bound on one flow group's layout: its field count is 16 bits, and a
// template record of this many fields (8 octets each at most) still fits in a
// message of a jumbo-frame MTU.
inline constexpr Kel::U32 maxFieldsPerFlowGroup = 1024;

}  // namespace Agent::Limits
