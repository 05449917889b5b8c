#pragma once

#include <cstdint>

// Counts heap allocations made through operator new in the whole program, so
// that a benchmark can report how many its measured loop makes. Linking
// AllocationCounter.cpp into a benchmark binary replaces the global operator
// new and delete with counting ones.
std::uint64_t allocationCount();
