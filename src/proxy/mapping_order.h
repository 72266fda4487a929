// The order in which a server's mappings are tried.
//
// Ownership: tables and entries are the caller's; what sortMappings puts into a
// table comes from permMalloc and is the table's.
// Threads: any; no lock is taken. sortMappings needs a table that no other thread
// sees yet; longerThan is a pure function.
// Failure: -1 with lastError ENOBUFS when memory runs out.
#pragma once

#include "properties/vesk_property.h"

// 1 when `first` must stand before `second`, else 0. Reads only the keys.
[[nodiscard]] std::int32_t longerThan(const property* first, const property* second);

// Rewrites '/path/*' as '/path*', drops what that makes double, and sorts the
// table by longerThan, in place and stable: 0, or -1; then the table is neither sorted
// nor free of doubles, and only good to be freed. The new patterns come from permMalloc.
// 48 KiB of stack.
[[nodiscard]] std::int32_t sortMappings(vesk_request* req, propertyTable* table);
