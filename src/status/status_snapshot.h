// How the connector stands at one moment: what all forms of the status page are made of.
//
// Counts are those of the board: of all processes where they share it, else of this one.
// States, connections and weights are of this process.
//
// Ownership: a snapshot and its arrays are memory of the request; freeSnapshot gives them
// back. Patterns and option texts are the table's and the host's, and stay.
// Threads: any. Takes tableMutex as a request does, to copy what it needs, and then the
// `lock` of one proxy after the other; asks no server.
// Failure: false without memory; then there is nothing to free.
// Units: as the fields say; times of day are seconds since the epoch.
#pragma once

#include "context/events.h"
#include "maptable/vesk_maptable_impl.h"
#include "proxy/counter_board.h"

struct statusServer {
  char name[kProxyNameSize];
  char replicationId[kBoardNameSize];  // cut; empty: none
  std::int32_t state;                  // a kServer value
  std::int64_t since;                  // of the state
  std::int64_t retryIn;                // seconds until it is tried again; 0: no such time
  bool drained;
  std::int64_t weight;
  std::uint32_t algorithm;  // a BALANCE_ code
  bool sticky;
  std::int32_t running;  // requests that it works on
  std::int32_t idle;     // connections in the pool
  std::int64_t mappings;
  serverCounters counters;
};

struct statusMapping {
  const char* pattern;
  std::int64_t hits;
  std::int32_t servers;
  std::int32_t active;  // of these
};

struct statusOption {
  const char* name;
  const char* value;
};

struct statusSnapshot {
  std::int64_t now;
  std::int64_t pid;
  std::int64_t started;    // counting began
  std::int32_t processes;  // that live
  bool shared;             // the counts are of all of them
  const char* version;
  bool filled;  // the table has its servers
  bool clustered;
  std::int64_t sequence;  // of the cluster's list; 0: unknown
  const char* bootstrap;  // null: none
  const char* store;      // path; null: none
  std::int64_t requests[kOutcomeKinds];
  std::int64_t lockWaits;
  std::int64_t lockMicros;
  statusServer* servers;  // in order of joining
  std::int32_t serverCount;
  statusMapping* mappings;  // in matching order
  std::int32_t mappingCount;
  veskEvent* events;  // oldest first
  std::int32_t eventCount;
  const statusOption* options;  // the caller's
  std::int32_t optionCount;
  const char* path;      // of the page, without a '/' at its end
  const char* token;     // of actions; null: the page has none
  std::int32_t refresh;  // seconds until the page asks for itself again; 0: never
};
static_assert(std::is_trivial_v<statusSnapshot>);

// `table` may be null. Fields that are the caller's to set are left null or 0.
[[nodiscard]] bool takeSnapshot(vesk_request* req, mappingsTable* table,
                                statusSnapshot* snapshot);
void freeSnapshot(vesk_request* req, statusSnapshot* snapshot);

// Words for what stands in one.
[[nodiscard]] const char* stateWord(const statusServer& server);
// By the position in kErrorLetters.
[[nodiscard]] const char* errorKindWord(std::int32_t kind);
// Attempts that have ended, well or not.
[[nodiscard]] std::int64_t attemptsOf(const serverCounters& counters);
