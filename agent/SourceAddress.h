#pragma once

#include <optional>

#include "Nivel/Addr.h"

namespace Agent {

// The source address the kernel would give a UDP datagram to `destination`
// on `port`, found by connecting a UDP socket there (which sends nothing) and
// asking it for its local address. Nullopt, with the system's reason in
// `error`, when there is no route.
std::optional<Nivel::IpGenAddr> kernelSourceAddress(const Nivel::IpGenAddr& destination,
                                                    Nivel::Port port, Kel::String* error);

}  // namespace Agent
