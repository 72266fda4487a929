// The pass that keeps the table's servers fresh: each gets its chance to come back and to
// say what it serves now.
//
// Two times in each proxy keep a pass nearly free unless something is due.
//
// Threads: any. `lock` as for server_join.h: with 0, which is how a request makes the
// pass, tableMutex is held across the network traffic.
// Failure: none; a server that can't be reached stays as it is, or goes out of service.
// Blocks on servers of which something is due.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// The pass; it also tries the awaited servers whose attempt is due.
void refreshServers(mappingsTable* table, vesk_request* req, std::uint32_t lock);

// Asks each server that is out of service and that a request has missed, whatever its
// timer says.
void reviveServers(mappingsTable* table, vesk_request* req, std::uint32_t lock);
