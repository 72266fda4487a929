// A server known only by its text becomes a proxy of the table.
//
// Ownership: the proxy is made here and belongs to the table once it has joined;
// otherwise it is destroyed here.
// Threads: REQUIRES tableMutex, or initMutex while the table is first filled; it
// is held while the server is asked for its properties and mappings.
#pragma once

#include "maptable/vesk_maptable_impl.h"

enum class ServerJoin {
  joined,
  failed,    // the server couldn't be set up; the proxy's lines tell why
  noMemory,  // no proxy could be made
  full,      // the table takes no more servers
};

// Makes a proxy of the server text and joins it. Blocks on the server.
[[nodiscard]] ServerJoin joinServer(mappingsTable* table, vesk_request* req,
                                    const char* server);

// One line for all servers of a list that found the table full; none for 0.
void reportServersRefused(vesk_request* req, std::int32_t refused);
