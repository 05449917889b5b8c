#include "Vorpa/Error.h"

namespace Vorpa {

std::string_view mountProblemString(MountProblem problem) {
   switch (problem) {
      case MountProblem::invalidName:
         return "invalid name";
      case MountProblem::missing:
         return "missing";
      case MountProblem::otherLayout:
         return "other layout";
      case MountProblem::corrupt:
         return "corrupt";
      case MountProblem::system:
         return "system error";
   }
   return "unknown";
}

std::string_view readStatusString(ReadStatus status) {
   switch (status) {
      case ReadStatus::ok:
         return "ok";
      case ReadStatus::notFound:
         return "not found";
      case ReadStatus::corrupt:
         return "corrupt";
      case ReadStatus::busy:
         return "busy";
   }
   return "unknown";
}

}  // namespace Vorpa
