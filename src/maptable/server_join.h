// A server known only by its text becomes a proxy of the table; a known one comes back.
//
// Ownership: the proxy is made here and belongs to the table once it has joined;
// otherwise it is destroyed here.
// Threads: `lock` 1: tableMutex is taken here, for the change alone, and not while the
// server is asked; 0: the caller holds it all along, or initMutex while the table is
// first filled.
// Failure: the result; what the server said stands in the proxy's lines. A server that is
// lost to exhausted memory is told apart from one that is down: the list that named it
// must not count as applied. Blocks.
#pragma once

#include "maptable/vesk_maptable_impl.h"

enum class ServerJoin {
  joined,    // it is new, and serves
  known,     // it stood in the table and serves
  later,     // it isn't there, and its next attempt is settled: nobody need try again
  failed,    // the server couldn't be set up; the proxy's lines tell why
  noMemory,  // for its proxy, or for its mappings in the table
  full,      // the table takes no more servers
};

// Makes a proxy of the server text and joins it.
[[nodiscard]] ServerJoin joinServer(mappingsTable* table, vesk_request* req,
                                    const char* server, std::uint32_t lock);

// Brings a server of the list into the table: joinServer for a new one, addProxy for a
// known one. With the guard `comeback` one that has failed waits for its pause, and
// comes back by an answered question only.
[[nodiscard]] ServerJoin admitServer(mappingsTable* table, vesk_request* req,
                                     const char* server, std::uint32_t lock);

// One line for all servers of a list that found the table full; none for 0.
void reportServersRefused(vesk_request* req, std::int32_t refused);
