// What becomes of a server: its state as an operator sees it, and the lines that tell of
// a change.
//
//   "vesk server 10.0.0.2:7001 DOWN connect: refused (up 3h12m, 2 of 3 left)"
//   "vesk server 10.0.0.2:7001 UP after 41s; 812 requests moved, 3 failed"
//   "vesk mappings of 10.0.0.2:7001: +/shop/* -/old/*"
//
//   new ---- serverCameUp ----> up ----- serverWentDown ----> down
//                              ^ |  <---- serverCameUp -------' |
//               serverCameUp --' `-- serverWasUnlisted -> gone <'
//
// The state follows the flags by which servers are chosen, and decides nothing. It is
// kept with or without the option `events`, which is about the lines.
//
// Ownership: nothing is kept. Threads: any; no lock is taken, and none of a proxy should
// be held: a line may wait for a disk. Failure: none; a line may be missing.
#pragma once

#include "context/event_text.h"
#include "proxy/vesk_proxy.h"

// The pool has marked the server as out of service, in doing what the word says;
// lastError tells why. Nothing happens for a proxy that is in no table, or is down
// already.
void serverWentDown(vesk_request* req, veskProxy* proxy, const char* doing);

// The server is in service. True when it joins with that, or comes back after it had left
// the list: the line about that is the caller's.
bool serverCameUp(vesk_request* req, veskProxy* proxy);

[[nodiscard]] bool isServerDown(const veskProxy* proxy);

// The cluster's list doesn't name it any more, or the table goes. True when it belonged
// to it until now.
bool serverWasUnlisted(vesk_request* req, veskProxy* proxy);

// A request that had failed on this server, or lost its session with it, has ended.
void serverLostRequest(veskProxy* proxy, bool servedByAnother);

// Makes the line about what a server serves now that it didn't before, and the other way
// round, from its own tables, sorted or not. Empty without a change, without the option,
// and where `old` is null: that is a beginning. REQUIRES: nobody frees the tables.
void describeMappings(const veskProxy* proxy, const propertyTable* old,
                      const propertyTable* fresh, EventText* line);
// Writes that line, unless it is empty.
void reportMappings(vesk_request* req, const veskProxy* proxy, const EventText& line);

// The items of such a line; none when both have the same patterns.
void addMappingChange(const propertyTable* old, const propertyTable* fresh,
                      EventText* line);
