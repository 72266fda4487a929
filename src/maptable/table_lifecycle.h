// A table from its making to its end.
//
// This stands above all that a table can do, since it fills the record's operations.
//
// Ownership: a table is whoever's it is made for; it and all in it come from
// permMalloc. Threads: start-up and shutdown; no other thread has the table then.
// Failure: null, after the allocator's line; nothing stays behind. Units: seconds.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// A new, empty table, or null when memory or the host's locks run out. The texts may
// be null and are copied. `retryInterval` stands in for servers that name none.
[[nodiscard]] mappingsTable* mappingsTableNew(vesk_request* req, const char* store,
                                              const char* bootstrap,
                                              std::uint32_t retryInterval);

// Deletes the table and its proxies; null is accepted. No other thread may be in
// one of its operations.
void mappingsTableDelete(mappingsTable* table, vesk_request* req);
