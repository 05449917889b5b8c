#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ExitCode.h"
#include "Nivel/Addr.h"
#include "ScrapeSource.h"

namespace IpfixStats {

// Where `ipfix-stats serve` listens: an IP address (never a name to look up)
// and a TCP port, 0 for one the system picks.
struct ListenAddress {
   Nivel::IpGenAddr address;
   Nivel::Port port = 0;
};

// "192.0.2.1:9739" or "[2001:db8::1]:9739"; nullopt for anything else.
std::optional<ListenAddress> parseListenAddress(std::string_view text);

// Answers GET /metrics from `source` over HTTP until SIGTERM or SIGINT, then
// returns exitOk. Prints the address it serves once it listens (the port
// the system picked, for port 0). Returns exitListen, having said why, when
// it cannot listen there.
ExitCode serveMetrics(ScrapeSource& source, const ListenAddress& listen);

}  // namespace IpfixStats
