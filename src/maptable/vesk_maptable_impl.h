// The connector's one routing table: which URI patterns go to the backend, and
// which servers serve each of them.
//
// `mappings`, `mappingProxies`, `mappingBalances` and `patterns` are parallel columns.
// They only grow: a server that leaves has flags cleared and keeps its entries.
//
// Ownership: the table owns its proxies (masterList), lists, balances and texts,
// all from permMalloc, until mappingsTableDelete.
// Threads: the five operations may be called by any number of threads at once.
// `tableMutex` guards all contents and is held across the network traffic of a
// refresh and of a cluster update, never while a request is forwarded.
// Locks, in order: initMutex, tableMutex, a proxy's `lock`.
// Failure: an operation's result. Units: seconds, where a field says nothing else.
#pragma once

#include <cstdint>
#include <type_traits>

#include "context/event_text.h"
#include "context/vesk_request.h"
#include "patterns/uri_pattern.h"
#include "properties/vesk_property.h"
#include "proxy/vesk_proxy.h"

// Servers of a list. One more is refused with a log line.
constexpr std::int32_t kMaxProxies = 128;
// Mappings of the table. One more is refused with a log line.
constexpr std::int32_t kMaxMappings = kMaxProperties;

// Results of handleRequest and handleRequestWithIndex.
constexpr std::int32_t kRequestServed = 0;
constexpr std::int32_t kRequestFailed = -1;
constexpr std::int32_t kRequestNotOurs = -2;

struct maintenanceQueue;
struct maintenanceThread;

struct proxyList {
  veskProxy* proxies[kMaxProxies];    // in order of joining
  std::uint32_t active[kMaxProxies];  // non-zero: takes part in this list
  std::int32_t count;
};

struct mappingBalance {
  std::uint32_t algorithm;  // a BALANCE_ code
  std::uint32_t sticky;     // 1: sessions stay with their server
  std::int32_t cursor;      // list position of the rotating algorithms, or -1
  // RANDOM_WEIGHTED only, owned; null until built: for each list position the
  // sum of the weights up to and with it. Room for kMaxProxies.
  std::uint64_t* weightSlots;
  std::uint32_t slotsStale;  // 1: weightSlots must be rebuilt before use
  std::int64_t totalWeight;  // of the active entries at the last build
  std::uint32_t anyActive;   // 1 while an entry of the list is active
  std::int64_t* hits;        // requests, on the board of counts: atomically; or null
};

// A server that the cluster's list names and that couldn't join; see awaited_servers.h.
struct awaitedServer {
  char name[kProxyNameSize];
  std::int64_t nextAttempt;  // seconds since the epoch
};

// Who has joined or left since it was told; see table_events.h.
struct clusterNews {
  EventText items;
  std::int64_t sequence;      // of the list that was applied last; 0: none was
  std::int64_t toldSequence;  // as the last line named it
};

// Values of tableUse.
constexpr std::int32_t kTableBuilding = 0;
constexpr std::int32_t kTableServing = 2;
constexpr std::int32_t kTableChanged = 3;

struct mappingsTable {
  // 0 when the table is usable, -1 when no server could be reached. Takes
  // initMutex; an attempt blocks, and is made until one has succeeded.
  std::int32_t (*initTable)(mappingsTable* table, vesk_request* req);
  // Index of the mapping that a request belongs to, or -1. Takes tableMutex, also
  // across the refresh of servers.
  std::int32_t (*filterRequest)(mappingsTable* table, vesk_request* req,
                                std::uint32_t honourIgnoreSuffix);
  // Serves a request: kRequestServed, kRequestFailed or kRequestNotOurs.
  // `extra` may be null. Blocks; tableMutex is taken only to choose a server.
  std::int32_t (*handleRequest)(mappingsTable* table, vesk_request* req,
                                const char* extra);
  // The same with the mapping's index; a negative one means it is found here.
  std::int32_t (*handleRequestWithIndex)(mappingsTable* table, vesk_request* req,
                                         const char* extra, std::int32_t index);
  // Stores the option and gives the old value. Takes tableMutex.
  std::uint32_t (*ignoreSuffixMap)(mappingsTable* table, vesk_request* req,
                                   std::uint32_t value);

  void* tableMutex;
  std::int32_t tableMutexHeld;
  // 1 for ever after one success. Written under initMutex, also read without it:
  // atomically, see isFilled.
  std::uint32_t initialized;
  void* initMutex;
  std::int32_t initMutexHeld;

  // Guarded by tableMutex from here on (while the table is first filled:
  // initMutex), but for what mappingsTableNew writes once: proxyRetryInterval,
  // serverStore and bootstrapServer.
  // 1: failover is attempted; never cleared. Between two attempts of a request
  // it is read without the lock: atomically, see isClustered.
  std::uint32_t clustered;
  std::int64_t clusterSeq;   // of the list last applied; 0 unknown
  std::int32_t tableUse;     // a kTable value
  std::int32_t lastMapping;  // index of the mapping created last, or 0
  propertyTable* mappings;   // pattern = target text
  proxyList* mappingProxies[kMaxMappings];
  mappingBalance* mappingBalances[kMaxMappings];
  proxyList masterList;               // every server ever known, in order of arrival
  std::uint32_t proxyRetryInterval;   // seconds; 0: the servers' own default
  std::uint32_t ignoreSuffix;         // 1: "*.ext" patterns don't filter
  char* storedServers;                // text of the store; null until known
  char* serverStore;                  // path; null when not configured
  char* bootstrapServer;              // "<ip>:<port>"; null when not configured
  std::uint32_t bootstrapped;         // 1 once a bootstrap brought a new server
  uriPattern patterns[kMaxMappings];  // the keys of `mappings`, taken apart

  // Makes each server of the table: a new proxy with one reference, or null.
  veskProxy* (*newProxy)(vesk_request* req);

  // With the guard `comeback`, under tableMutex.
  awaitedServer awaited[kMaxProxies];
  std::int32_t awaitedCount;
  // With the guard `stall`; written by veskinit and veskend. Null: requests do the work.
  maintenanceThread* maintenance;
  maintenanceQueue* queue;
  clusterNews news;  // with the option `events`, under tableMutex
};
static_assert(std::is_trivial_v<mappingsTable> &&
              std::is_standard_layout_v<mappingsTable>);

// Access to `initialized`.
[[nodiscard]] bool isFilled(mappingsTable* table);
void setFilled(mappingsTable* table);

// Access to `clustered`.
[[nodiscard]] bool isClustered(mappingsTable* table);
void setClustered(mappingsTable* table);

// Traces the whole table under a label. REQUIRES: tableMutex.
void dumpMappings(mappingsTable* table, vesk_request* req, const char* label);
