#pragma once

#include "Vorpa/Error.h"

namespace IpfixStats {

// The exit status of ipfix-stats, one per kind of failure so that scripts can
// tell them apart.
enum ExitCode : int {
   exitOk = 0,
   exitFailure = 1,  // a system error: permissions, memory; clear: the agent did not answer
   exitUsage = 2,    // bad command line, table name or runtime directory
   exitMissing = 3,  // no such table
   exitOtherLayout = 4,
   exitCorrupt = 5,
   exitNoAgent = 6,  // clear: no agent serves the table
   exitRefused = 7,  // clear: the agent refused the request (a tracker or exporter it lacks,
                     // a user it does not serve)
   exitListen = 8,   // serve: cannot listen on the address (in use, not local, not allowed)
};

inline ExitCode exitCodeFor(Vorpa::MountProblem problem) {
   switch (problem) {
      case Vorpa::MountProblem::invalidName:
         return exitUsage;
      case Vorpa::MountProblem::missing:
         return exitMissing;
      case Vorpa::MountProblem::otherLayout:
         return exitOtherLayout;
      case Vorpa::MountProblem::corrupt:
         return exitCorrupt;
      case Vorpa::MountProblem::system:
         break;
   }
   return exitFailure;
}

}  // namespace IpfixStats
