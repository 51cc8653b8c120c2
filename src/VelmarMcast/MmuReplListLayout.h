#pragma once
// Lays a resolved replication list out as hardware entries.
//
// Next hops are walked in ascending index order. When the entry has no dense size, every
// (next hop, port) pair goes into sparse entries of sparseEntrySize pairs each. Otherwise
// next hops are gathered into buckets of 64 consecutive indices; a bucket holding at least
// sparseEntrySize next hops becomes one dense entry (a bitmap), and the next hops of every
// other bucket share one stream of sparse entries. Dense entries carry one port per next
// hop, so a multi-port (aggregated) egress object in that mode stops the agent.

#include "VelmarMcast/MmuReplListEntry.h"

namespace VelmarMcast {

// Adds the entry's sparse and dense hardware entries (with the flag true) from its
// resolved egress objects. Adds only: entries already present stay. Throws
// std::invalid_argument when sparseEntrySize is 0, or below 2 while dense entries are on.
void replListMetaDataIs(const MmuReplListTableEntry& entry);

}  // namespace VelmarMcast
