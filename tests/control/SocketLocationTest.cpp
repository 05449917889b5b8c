#include <gtest/gtest.h>

#include "SocketLocation.h"
#include "support/ScopedRuntimeDirectory.h"

namespace {

// What the agent and ipfix-stats read from their environment and command
// line, and where that puts the socket: the explicit path first, then the
// service manager's first runtime directory, then the login session's, then
// the agent's own, the only one made when missing. An empty variable counts
// as unset.
TEST(SocketLocation, CommandLineThenEnvironmentThenDefault) {
   const std::string longest(73, 'a');
   const std::string longDirectory = "/" + std::string(90, 'd');
   const std::string tooLongPath = "/" + std::string(107, 's');
   const struct {
      const char* what;
      const char* runtimeDirectory;  // nullptr: unset
      const char* xdgRuntimeDir;
      const char* explicitPath;  // nullptr: no --control-socket
      std::string table;
      std::string expected;             // the path, or a part of the error
      const char* directory = nullptr;  // nullptr: an error is expected
   } cases[] = {
       {"service manager", "/run/ipfix", "/run/user/0", nullptr, "azAZ09.-_",
        "/run/ipfix/ipfix-agent.azAZ09.-_.sock", "/run/ipfix"},
       {"several from the service manager", "/run/a:/run/b", nullptr, nullptr, "t",
        "/run/a/ipfix-agent.t.sock", "/run/a"},
       {"login session", "", "/run/user/1000/", nullptr, "t", "/run/user/1000/ipfix-agent.t.sock",
        "/run/user/1000/"},
       {"neither", nullptr, "", nullptr, "ipfix-collector-stats",
        "/run/ipfix-agent/ipfix-agent.ipfix-collector-stats.sock", "/run/ipfix-agent"},
       {"--control-socket over both, whatever the table", "/run/a", "/run/b", "/srv/x.sock", "../t",
        "/srv/x.sock", "/srv"},
       {"--control-socket relative", "/run/a", nullptr, "x.sock", "t", "x.sock", "."},
       {"--control-socket at the root", nullptr, nullptr, "/x.sock", "t", "/x.sock", "/"},
       {"longest table name", nullptr, nullptr, nullptr, longest,
        "/run/ipfix-agent/ipfix-agent." + longest + ".sock", "/run/ipfix-agent"},
       {"table name too long", nullptr, nullptr, nullptr, longest + "a",
        "too long for a control socket in /run/ipfix-agent: at most 73 characters, not 74"},
       {"directory too long", longDirectory.c_str(), nullptr, nullptr, "t",
        "too long to hold a control socket"},
       {"relative service directory", "run/a:/run/b", "/run/user/0", nullptr, "t",
        "RUNTIME_DIRECTORY must name an absolute path, not 'run/a:/run/b'"},
       {"empty first service directory", ":/run/b", nullptr, nullptr, "t",
        "RUNTIME_DIRECTORY must name an absolute path"},
       {"relative session directory", nullptr, "user", nullptr, "t",
        "XDG_RUNTIME_DIR must name an absolute path, not 'user'"},
       {"--control-socket empty", nullptr, nullptr, "", "t", "does not name a file"},
       {"--control-socket a directory", nullptr, nullptr, "/run/", "t", "does not name a file"},
       {"--control-socket too long", nullptr, nullptr, tooLongPath.c_str(), "t",
        "too long for a socket address: at most 107 octets, not 108"},
       {"empty table", nullptr, nullptr, nullptr, "", "invalid table name ''"},
       {"table .", nullptr, nullptr, nullptr, ".", "invalid table name '.'"},
       {"table ..", "/run/a", nullptr, nullptr, "..", "invalid table name '..'"},
       {"table out of the directory", nullptr, nullptr, nullptr, "../../etc/x",
        "invalid table name '../../etc/x'"},
       {"table in a subdirectory", nullptr, nullptr, nullptr, "a/b", "invalid table name"},
       {"table of two lines", nullptr, nullptr, nullptr, "a\nb", "invalid table name 'a%0Ab'"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      const TestSupport::ScopedVariable runtimeDirectory("RUNTIME_DIRECTORY", c.runtimeDirectory);
      const TestSupport::ScopedVariable xdgRuntimeDir("XDG_RUNTIME_DIR", c.xdgRuntimeDir);
      const auto explicitPath =
          c.explicitPath ? std::optional<Kel::String>(c.explicitPath) : std::nullopt;
      Kel::String error;
      const auto location = Control::socketLocation(
          c.table, Control::SocketPlacement::fromEnvironment(explicitPath), &error);
      ASSERT_EQ(location.has_value(), c.directory != nullptr) << error;
      if (location) {
         EXPECT_EQ(location->path, c.expected);
         EXPECT_EQ(location->directory, c.directory);
         EXPECT_EQ(location->createDirectory, location->directory == "/run/ipfix-agent");
         EXPECT_EQ(error, "");
      } else {
         EXPECT_NE(error.find(c.expected), std::string::npos) << error;
      }
   }
}

}  // namespace
