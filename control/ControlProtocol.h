#pragma once

#include <optional>
#include <string_view>

#include "Kel/Types.h"

// The text protocol of the agent's control socket, shared by the agent and
// ipfix-stats. SocketLocation.h says where the socket is.
//
// The agent serving statistics table T listens on the Unix datagram socket
// ipfix-agent.T.sock of its runtime directory, or at the path given with
// --control-socket. A client sends one request per datagram, from a socket
// bound to an address of its own (so that the agent can answer), and gets one
// reply datagram:
//
//   clear                          every tracker's counters
//   clear tracker=T                the counters of tracker T
//   clear tracker=T exporter=E     the counters of exporter E of tracker T
//
// answered by "ok" or "error: <why>", each ending with a newline. Names are
// percent-encoded (every octet other than a letter, a digit, '-', '.', '_'
// or '~' is written %XX), because the configuration file allows any text in
// a name, spaces and '=' included.
//
// The agent reads the sender's credentials from each datagram and answers
// only its own user and root; anyone else gets "error: ..." and nothing is
// done.
namespace Control {

// The longest request or reply; anything longer is refused whole.
inline constexpr std::size_t maxMessageLength = 512;

// The longest tracker or exporter name: names are part of the collector
// statistics key, and the agent's configuration keeps them to this length.
inline constexpr std::size_t maxNameLength = 63;

// A counter-clear request; an empty name means every one.
struct ClearRequest {
   Kel::Name tracker;
   Kel::Name exporter;
   bool operator==(const ClearRequest&) const = default;
};

// Why the agent cannot take `request` whatever its configuration (an
// exporter without its tracker, a name too long for the statistics key), or
// nullopt when it can.
std::optional<Kel::String> requestProblem(const ClearRequest& request);

// The request line, newline included.
Kel::String requestText(const ClearRequest& request);

// Reads one request datagram. On malformed text, nullopt with the reason in
// `error`.
std::optional<ClearRequest> parseRequest(std::string_view text, Kel::String* error);

// "ok\n", or "error: <message>\n" with control characters of the message
// escaped so that the reply stays one line.
Kel::String okReply();
Kel::String errorReply(std::string_view message);

// A reply as the client reads it: ok, or the agent's reason.
struct Reply {
   bool ok = false;
   Kel::String error;
};
std::optional<Reply> parseReply(std::string_view text);

// Percent-encoding of names, as above. decodeName() returns nullopt for a
// stray '%', a bad hex digit or an octet that should have been encoded.
Kel::String encodeName(std::string_view name);
std::optional<Kel::String> decodeName(std::string_view text);

// Outside text as an error message shows it: at most 32 octets and "...",
// octets other than printable ASCII as %XX, so that the message stays one
// line and fits in a reply.
Kel::String shownText(std::string_view text);

}  // namespace Control
