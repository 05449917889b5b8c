#pragma once

#include <optional>

#include "AgentConfig.h"
#include "ConfigError.h"

// Reads the agent's YAML configuration file into an AgentConfig, checking
// everything that would otherwise reach the library: a configuration that
// loads can be written to the model as it is.
//
// The file, in brief (examples/demo.yaml shows every key with comments):
//
//   statistics-table: ipfix-collector-stats          # optional
//   flow-tracking:
//     hardware:                            # or sampled; each optional
//       sample-rate: 1                     # optional, default 1
//       trackers:
//         - name: ft1
//           id: 101                        # observation domain id
//           active-interval-ms: 300000     # optional
//           inactive-timeout-ms: 15000     # optional
//           exporters:
//             - name: exp1
//               collectors:
//                 - { name: c1, address: 127.0.0.1, port: 4739 }
//               source-ipv4: 127.0.0.1     # optional, also source-ipv6
//               dscp: 46                   # DSCP code point, optional
//               mtu: 1500                  # optional
//               template-interval-ms: 60000  # optional
//               vrf: default               # optional
//           flow-groups:
//             - template-id: 256
//               entries: 1000
//               fields:
//                 - { element: sourceIPv4Address, flow-key: true }
//                 - octetDeltaCount        # a field that is no flow key
//   interfaces:
//     - { name: Ethernet1, index: 1 }
//   vrfs:
//     - { id: 1, name: blue }
namespace Agent {

struct LoadResult {
   // Set exactly when `errors` is empty.
   std::optional<AgentConfig> config;
   ConfigErrors errors;
};

// `fileName` only names the file in the errors.
LoadResult parse(const Kel::String& text, const Kel::String& fileName);
// Reads and parses the file at `path`; an unreadable file is one error.
LoadResult load(const Kel::String& path);

}  // namespace Agent
