// The table's parallel columns: a mapping enters, moves and leaves in all of them.
//
// Ownership: what is made here comes from permMalloc and belongs to the table.
// Threads: REQUIRES tableMutex, all of it, or initMutex while the table is first
// filled. Failure: -1 with lastError ENOBUFS; the columns are as before then.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// Adds a mapping that this server alone serves, at the end: its index, or -1. Active
// in its list, with a balance of the server's settings, for weights to be summed anew.
// REQUIRES: there is room, and no mapping has that key.
[[nodiscard]] std::int32_t appendMapping(mappingsTable* table, vesk_request* req,
                                         veskProxy* proxy, const property& pair);

// Takes back the mappings from index `first` on, which nobody has seen yet.
void takeBackMappings(mappingsTable* table, vesk_request* req, std::int32_t first);

// Moves the newest mappings, from index `first` on, to their places in matching order,
// as if each had been moved alone: in front of all at the end that it beats, behind the
// first that it doesn't.
void mergeNewMapping(mappingsTable* table, std::int32_t first);
