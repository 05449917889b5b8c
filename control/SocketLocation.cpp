#include "SocketLocation.h"

#include <fmt/format.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdlib>

#include "ControlProtocol.h"

namespace Control {

namespace {

constexpr std::string_view socketPrefix = "ipfix-agent.";
constexpr std::string_view socketSuffix = ".sock";

// A socket address holds the path and its terminating zero.
constexpr std::size_t maxPathLength = sizeof(sockaddr_un::sun_path) - 1;

bool isTableNameChar(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
          c == '.' || c == '_';
}

std::optional<Kel::String> variable(const char* name) {
   const char* value = std::getenv(name);
   if (value == nullptr || *value == '\0') {
      return std::nullopt;
   }
   return Kel::String(value);
}

std::optional<SocketLocation> unplaced(Kel::String* error, Kel::String why) {
   if (error) {
      *error = std::move(why);
   }
   return std::nullopt;
}

std::optional<SocketLocation> explicitLocation(const Kel::String& path, Kel::String* error) {
   if (path.empty() || path.ends_with('/')) {
      return unplaced(error, fmt::format("--control-socket '{}' does not name a file", path));
   }
   if (path.size() > maxPathLength) {
      return unplaced(error, fmt::format("--control-socket {} is too long for a socket address: at "
                                         "most {} octets, not {}",
                                         path, maxPathLength, path.size()));
   }
   const std::size_t slash = path.rfind('/');
   Kel::String directory = slash == Kel::String::npos ? "."
                           : slash == 0               ? "/"
                                                      : path.substr(0, slash);
   return SocketLocation{path, std::move(directory), false};
}

}  // namespace

SocketPlacement SocketPlacement::fromEnvironment(std::optional<Kel::String> explicitPath) {
   return {std::move(explicitPath), variable("RUNTIME_DIRECTORY"), variable("XDG_RUNTIME_DIR")};
}

std::optional<SocketLocation> socketLocation(std::string_view table,
                                             const SocketPlacement& placement, Kel::String* error) {
   if (placement.explicitPath) {
      return explicitLocation(*placement.explicitPath, error);
   }
   SocketLocation location;
   if (placement.runtimeDirectory || placement.xdgRuntimeDir) {
      const bool fromServiceManager = placement.runtimeDirectory.has_value();
      const std::string_view variableName =
          fromServiceManager ? "RUNTIME_DIRECTORY" : "XDG_RUNTIME_DIR";
      const Kel::String& value =
          fromServiceManager ? *placement.runtimeDirectory : *placement.xdgRuntimeDir;
      // The service manager lists one directory per entry the service asks
      // for, colon-separated; the agent's socket goes in the first.
      location.directory = value.substr(0, fromServiceManager ? value.find(':') : value.npos);
      if (!location.directory.starts_with('/')) {
         return unplaced(
             error, fmt::format("{} must name an absolute path, not '{}'", variableName, value));
      }
   } else {
      location.directory = defaultRuntimeDirectory;
      location.createDirectory = true;
   }
   if (table.empty() || table == "." || table == ".." ||
       !std::all_of(table.begin(), table.end(), isTableNameChar)) {
      return unplaced(error, fmt::format("invalid table name '{}' for a control socket: expected "
                                         "letters, digits, '.', '_' and '-'",
                                         shownText(table)));
   }
   const std::string_view separator = location.directory.ends_with('/') ? "" : "/";
   const std::size_t fixedLength =
       location.directory.size() + separator.size() + socketPrefix.size() + socketSuffix.size();
   if (fixedLength >= maxPathLength) {
      return unplaced(error,
                      fmt::format("runtime directory {} is too long to hold a control socket",
                                  location.directory));
   }
   if (table.size() > maxPathLength - fixedLength) {
      return unplaced(error, fmt::format("table name '{}' is too long for a control socket in {}: "
                                         "at most {} characters, not {}",
                                         shownText(table), location.directory,
                                         maxPathLength - fixedLength, table.size()));
   }
   location.path =
       fmt::format("{}{}{}{}{}", location.directory, separator, socketPrefix, table, socketSuffix);
   return location;
}

}  // namespace Control
