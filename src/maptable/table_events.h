// What becomes of the cluster's list and of requests, as event lines.
//
//   "vesk cluster 7 -> 8: +10.0.0.4:7001 -10.0.0.3:7001"
//   "vesk request GET /shop/cart failed: 2 attempts, 10.0.0.2:7001 reset, 10.0.0.1:7001
//    busy"
//
// A server that joins or leaves is noted in the table, and told when the work that it is
// a part of is done: a list with all its servers makes one line.
//
// Ownership: notes of the cluster are the table's, those of attempts lie on the stack of
// their request. Threads: any; `lock` as for membership.h. A line is written without
// tableMutex where `lock` is 1. Failure: none; a line may be missing.
#pragma once

#include "maptable/vesk_maptable_impl.h"

// A server has joined the table, or come back to the list; or left the list.
void noteJoined(mappingsTable* table, vesk_request* req, const veskProxy* proxy,
                std::uint32_t lock);
void noteLeft(mappingsTable* table, vesk_request* req, const veskProxy* proxy,
              std::uint32_t lock);

// Tells what was noted, if anything, or that the list has another number; within a second
// of the last such line it is left for the next call. `sequence` is the number of the
// list that was applied; 0 or below: none was.
void reportClusterNews(mappingsTable* table, vesk_request* req, std::int64_t sequence,
                       std::uint32_t lock);

// Attempts that are noted with server and error; more are rare, and only counted.
constexpr std::int32_t kNotedAttempts = 4;

// The attempts of one request that have failed.
struct failedAttempts {
  std::int32_t count;
  bool nobodyLeft;  // no server was left for a further one
  veskProxy* proxies[kNotedAttempts];
  std::int32_t errors[kNotedAttempts];
};
static_assert(std::is_trivial_v<failedAttempts>);

void noteFailedAttempt(failedAttempts* attempts, veskProxy* proxy, std::int32_t error);

// Counts for the servers what became of a request that has ended with `result`, and tells
// of one that failed; but not of one whose browser has gone.
void concludeAttempts(vesk_request* req, const failedAttempts& attempts,
                      std::int32_t result);

// The text of such a line.
void describeFailedRequest(const vesk_request* req, const failedAttempts& attempts,
                           EventText* line);
