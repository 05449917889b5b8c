#pragma once

#include "Vorpa/TableSegment.h"

namespace Vorpa {

// A full table refused an insert: counted in the segment, where readers see
// it, and traced.
void insertRefused(const TableSegment& segment);

// The writer met a corrupt slot or was asked to write outside the slots:
// counted and traced, then raised as the assertion `assertion` names, because
// the writer's own memory is wrong.
[[noreturn]] void corruptionFound(const TableSegment& segment, const char* assertion);

}  // namespace Vorpa
