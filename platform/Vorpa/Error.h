#pragma once

#include "Kel/Exception.h"

namespace Vorpa {

// Why a table could not be mounted. Readers meet these from segments that
// other processes wrote, so they are answered with an error, never an
// assertion.
enum class MountProblem {
   invalidName,  // not usable as a shared-memory object name
   missing,      // no such segment, or its writer has not finished creating it
   otherLayout,  // another layout version, or other key or value types
   corrupt,      // a header that contradicts itself or the segment's size
   system,       // a system call failed (permissions, memory)
};

class MountError : public Kel::Exception {
 public:
   MountError(MountProblem problem, const Kel::String& what)
       : Kel::Exception(what), problem_(problem) {}
   MountProblem problem() const noexcept { return problem_; }

 private:
   MountProblem problem_;
};

// The outcome of a reader's copy of one entry.
enum class ReadStatus {
   ok,
   notFound,
   corrupt,  // bad checksum, impossible slot state or an invalid entry
   busy,     // the writer kept the slot open for longer than a reader waits
};

// Texts of the assertions the writer raises when it meets a corrupt table: the
// table is this process's own memory, so corruption there is a bug.
inline constexpr const char* noMansLandAssertion = "VorpaMap::safeWrite() in no man's land";
inline constexpr const char* badChecksumAssertion = "VorpaMap::safeRead() bad checksum";

}  // namespace Vorpa
