// The server for one attempt of a request: the records are read, server_choice chooses,
// and what follows from its choice is written back and told.
//
// Ownership: a chosen server stays the table's, and valid without the lock.
// Threads: REQUIRES tableMutex. Failure: null; the caller answers the browser.
// Blocking: never.
#pragma once

#include "maptable/failed_list.h"
#include "maptable/vesk_maptable_impl.h"

// The chosen server, or null. A mapping's only server is chosen in any state.
[[nodiscard]] veskProxy* selectProxy(mappingsTable* table, vesk_request* req,
                                     std::int32_t index);

// The first server of a list that is active, in service, and hasn't failed for this
// request; null when there is none.
[[nodiscard]] veskProxy* selectUntried(const proxyList* list, const failedList& failed);
