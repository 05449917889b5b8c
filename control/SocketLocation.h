#pragma once

#include <optional>
#include <string_view>

#include "Kel/Types.h"

// Where the control socket of the agent serving a statistics table is. The
// agent and ipfix-stats work it out the same way, from the same inputs, so
// that they meet without talking first.
//
// The socket is ipfix-agent.<table>.sock in a runtime directory: the first
// entry of $RUNTIME_DIRECTORY when the service manager gives the agent some
// (colon-separated), else $XDG_RUNTIME_DIR, else /run/ipfix-agent. Each of
// these is writable by its owner only, so unlike a path in /tmp no other user
// can take the name first. --control-socket names the socket itself instead.
namespace Control {

inline constexpr std::string_view defaultRuntimeDirectory = "/run/ipfix-agent";

// What places the socket besides the table: the command line's
// --control-socket and the process's environment. An unset or empty variable
// is nullopt.
struct SocketPlacement {
   std::optional<Kel::String> explicitPath;
   std::optional<Kel::String> runtimeDirectory;
   std::optional<Kel::String> xdgRuntimeDir;

   // This process's environment, with `explicitPath` from its command line.
   static SocketPlacement fromEnvironment(std::optional<Kel::String> explicitPath);
};

struct SocketLocation {
   Kel::String path;
   // The directory that holds the socket.
   Kel::String directory;
   // Only the agent's default directory is made when missing; the others
   // belong to whoever named them, and a missing one is an error.
   bool createDirectory = false;

   bool operator==(const SocketLocation&) const = default;
};

// The control socket of the agent serving `table`. With an explicit path the
// table plays no part. Otherwise the table name must be what the
// configuration file accepts (letters, digits, '.', '_' and '-', not "." or
// ".."), which also keeps the socket inside its directory, and the directory
// an absolute path. The whole path must fit in a socket address. When it
// cannot be placed, nullopt with the reason in `error`.
std::optional<SocketLocation> socketLocation(std::string_view table,
                                             const SocketPlacement& placement, Kel::String* error);

}  // namespace Control
