#pragma once

#include "AgentConfig.h"

// How large a collector statistics table a configuration needs. The table is
// shared memory of a fixed size, made when the agent starts.
namespace Agent {

// Entries the configuration can fill: one per collector of every exporter,
// and the clear-time entries a counter clear writes, one per exporter and one
// per tracker.
Kel::U64 statisticsEntries(const AgentConfig& config);

// The capacity the agent gives the table for `config`: the file's
// statistics-capacity, else twice what the configuration needs (room for
// reloads that add collectors), at least the library's default and at most
// what a table can hold.
Kel::U32 statisticsCapacity(const AgentConfig& config);

}  // namespace Agent
