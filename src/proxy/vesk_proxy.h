// One backend server: the record, its operations, and the small functions that
// every other file of this folder leans on. proxy_lifecycle.h makes one.
//
// Ownership: veskProxyNew gives its caller the one reference. A proxy that stands
// in a mappings table lives as long as the table; a server that leaves is only
// deactivated, so a proxy found under the table's lock stays valid without one.
// A proxy owns its pool, mappings, balance and metrics, all from permMalloc.
// Threads: any number at once; the groups of fields say what guards them. `lock`
// is taken after the table's `tableMutex` and held for field work only.
// Failure: -1 or null, with the reason in lastError of the request.
// Units: times are seconds since the epoch, intervals seconds, unless they say
// milliseconds.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <type_traits>

#include "context/vesk_request.h"

struct boardServer;
struct propertyTable;
struct veskProxy;

// One socket to a server. `next` tells where it came from: the link while it lies
// in the pool, itself once taken from there, null when newly connected.
struct VeskConnection {
  VeskConnection* next;
  std::int32_t socket;
  std::int64_t idleSince;  // seconds since the epoch; while it lies in the pool
};

struct proxyPool {
  sockaddr_in address;  // written once, before the proxy is published
  // Under `lock`.
  VeskConnection* freeConnections;  // idle ones, last returned first
  std::int64_t lastAgeCheck;        // when the list was searched for old ones; seconds
};

// Load-balancing codes, as "algorithm" of the server's properties names them.
enum : std::uint32_t {
  BALANCE_ROUNDROBIN = 1,
  BALANCE_ROUNDROBIN_WEIGHTED = 2,
  BALANCE_MIN = 3,
  BALANCE_MAX = 4,
  BALANCE_RANDOM_WEIGHTED = 5,
};

struct proxyBalance {
  // Written by a request without a lock, read under `tableMutex`: atomically.
  std::int64_t weight;
  std::int64_t turnsLeft;   // under `tableMutex`
  std::uint32_t algorithm;  // a BALANCE_ code
  std::uint32_t sticky;     // 1 or 0
  char* replicationId;      // owned; null when the server named none
  // 1 while the server is believed in service. Written under `lock`, read
  // without it: atomically. See isProxyActive.
  std::uint32_t active;
};

constexpr std::int64_t kMetricsBatchSize = 20;  // requests

struct proxyMetrics {
  void* lock;  // always taken alone
  std::int32_t lockHeld;
  // Guarded by the lock above; milliseconds, and counts of requests.
  std::int64_t startMillis;
  std::int64_t lastResponseMillis;
  std::int64_t batchAverageMillis;
  std::int64_t batchStartMillis;
  std::int64_t batchSize;
  std::int64_t totalResponseMillis;
  std::int64_t requestCount;
};

// How a server stands with the cluster's list and its own connections; see
// server_events.h. New until it has joined a table.
enum : std::int32_t { kServerNew = 0, kServerUp, kServerDown, kServerGone };

// What is told of a server besides its settings. Written and read without a lock:
// atomically.
struct serverHistory {
  std::int32_t state;
  std::int64_t since;  // of the state; seconds since the epoch
  // Requests since it went down that had failed here or lost their session with it:
  std::int64_t moved;   // another server has answered
  std::int64_t failed;  // no server has
};

constexpr int kProxyNameSize = 64;  // 63 characters and a NUL
constexpr std::int64_t kNever = 0x7FFFFFFFFFFFFFFF;

struct veskProxy {
  void* lock;
  std::int32_t lockHeld;

  // Owned. Null before initProxy, and after it when the server text was no
  // "<ip>:<port>" or memory ran out.
  proxyPool* pool;
  char name[kProxyNameSize];  // "<ip>:<port>", the proxy's identity

  std::int32_t mapCheckInterval;  // 0: no timed refresh
  // Written under `lock`, first read without it: atomically.
  std::int64_t nextMapCheckTime;    // 0: due at once; kNever
  propertyTable* mappings;          // owned, replaced whole under `lock`
  std::int32_t proxyRetryInterval;  // 0: no timed retry
  // Written under `lock` (the last-ditch search: under `tableMutex`), first read
  // without it: atomically.
  std::int64_t nextProxyRetryTime;  // 0: not marked unreachable

  std::int32_t refCount;  // under `lock`, never below 0
  proxyBalance* balance;  // owned; null on a temp proxy
  proxyMetrics* metrics;  // owned; null unless veskMetrics was on

  // Serves one request on this server: 0 when it sent PROXY_FINISH, else -1 after
  // proxyerror has been called. `sequence`, if not null, gets the number of the
  // cluster's list, or -1. Blocks.
  std::int32_t (*handleRequest)(vesk_request* req, veskProxy* proxy, const char* extra,
                                std::int32_t* sequence);
  // Gives up the caller's reference; with the last one it closes the idle
  // connections and frees the proxy, which no other thread may know then. The count
  // left; at 0 the proxy is gone. Takes `lock`; leaves lastError alone.
  std::int32_t (*destroyInetProxy)(veskProxy* proxy, vesk_request* req);
  // Closes all idle connections. REQUIRES: `lock`.
  void (*destroyPooledSockets)(vesk_request* req, veskProxy* proxy);
  // A new table that the caller frees with freeProperties, or null. `sequence`,
  // if not null, gets the number that came with it, or -1. Blocks.
  propertyTable* (*fetchProps)(vesk_request* req, veskProxy* proxy, const char* set,
                               std::int32_t* sequence);
  // Sets a new proxy up from its server: 0 or -1; then destroy it. With `temp` 1
  // the server isn't spoken to. Blocks.
  std::int32_t (*initProxy)(veskProxy* proxy, vesk_request* req, const char* server,
                            std::int32_t retryInterval, std::int32_t temp);
  // 1 nothing due, 0 new mappings installed, -1 failed or taken by another thread.
  std::int32_t (*refreshMappings)(veskProxy* proxy, vesk_request* req);
  // 1 when a retry was due and the server took a ping, else 0. Blocks then.
  std::int32_t (*isAlive)(veskProxy* proxy, vesk_request* req);
  // 1 when a ping went out on some connection, else 0. Blocks.
  // REQUIRES: `lock` is not held.
  std::int32_t (*sendPing)(veskProxy* proxy, vesk_request* req);
  // Take and give up one reference: the new count, never below 0. `release` frees
  // nothing. Both take `lock`.
  std::int32_t (*addRef)(veskProxy* proxy, vesk_request* req);
  std::int32_t (*release)(veskProxy* proxy, vesk_request* req);
  // Enters a request that has ended into the metrics: it lasted from its startTime
  // until now. Does nothing without metrics. Takes the lock of the metrics, alone.
  void (*requestEnded)(veskProxy* proxy, vesk_request* req);

  // Conversations about requests that run at this moment: atomically.
  std::int32_t conversations;
  // 1: the cluster's list no longer names this server, so no timer brings it back.
  // Written and read without a lock: atomically.
  std::uint32_t unlisted;
  // 1: a request has found a mapping without a server that this one may serve, and the
  // connector's own thread has not asked it since: atomically.
  std::uint32_t wanted;
  serverHistory history;
  // Its place on the board of counts, from its joining a table on; null without one.
  // Written under the table's tableMutex, before any request can choose the proxy.
  boardServer* place;
};
static_assert(std::is_trivial_v<veskProxy> && std::is_standard_layout_v<veskProxy>);
static_assert(std::is_trivial_v<proxyBalance> && std::is_trivial_v<proxyMetrics>);

// The `addRef` and `release` operations; their contracts stand in the record.
std::int32_t proxyAddRef(veskProxy* proxy, vesk_request* req);
std::int32_t proxyRelease(veskProxy* proxy, vesk_request* req);

// The pause of a server whose interval is 0, where the guard `comeback` wants one;
// seconds.
constexpr std::int32_t kShortPause = 10;

// Seconds that a server which failed is left alone; 0: for good.
[[nodiscard]] std::int32_t retryPause(const vesk_request* req, const veskProxy* proxy);

// Set a timer to `now` plus its interval; an interval of 0 means kNever for the
// mapping check and 0 for the retry. With the guard `comeback` a server that is out of
// service always has a retry timer that ends. REQUIRES: `lock`.
void setNextMapCheckTime(vesk_request* req, veskProxy* proxy, std::int64_t now);
void setNextProxyRetryTime(vesk_request* req, veskProxy* proxy, std::int64_t now);

// 1 when lastError means that the server is down; a timeout and a broken pipe
// count only while `connecting`.
[[nodiscard]] std::int32_t isVeskServerUnreachable(const vesk_request* req,
                                                   std::int32_t connecting);

// Access to the fields that are also read without their lock. The setters say
// nothing about locks: their callers hold what the fields ask for.
[[nodiscard]] bool isProxyActive(const veskProxy* proxy);  // false on a temp proxy
void setProxyActive(veskProxy* proxy, bool active);        // no-op on a temp proxy
[[nodiscard]] bool isProxyUnlisted(const veskProxy* proxy);
void setProxyUnlisted(veskProxy* proxy, bool unlisted);
void setProxyWanted(veskProxy* proxy);
[[nodiscard]] bool takeProxyWanted(veskProxy* proxy);  // whether it was; now it isn't
[[nodiscard]] std::int64_t getProxyWeight(const veskProxy* proxy);
void setProxyWeight(veskProxy* proxy, std::int64_t weight);
[[nodiscard]] std::int64_t getProxyRetryTime(const veskProxy* proxy);
void setProxyRetryTime(veskProxy* proxy, std::int64_t time);
[[nodiscard]] std::int64_t getMapCheckTime(const veskProxy* proxy);
void setMapCheckTime(veskProxy* proxy, std::int64_t time);
