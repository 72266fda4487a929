#include "maptable/selection.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "context/memory.h"
#include "maptable/membership.h"
#include "maptable/table_startup.h"
#include "maptable/vesk_session.h"

constexpr std::int32_t kNoEntry = -1;
// MIN takes nothing from here on, MAX nothing up to its own bound.
constexpr std::int64_t kMinBound = 0x7fffffff;
constexpr std::int64_t kMaxBound = 0;
// A server sends 32 bits; the bound keeps the sum of a full list below 2^62,
// which is what two draws of `rand` reach together.
constexpr std::int64_t kMaxCountedWeight = std::int64_t{1} << 54;
constexpr std::uint64_t kDraws = std::uint64_t{RAND_MAX} + 1;

// What an algorithm works on.
struct Selection {
  vesk_request* req;
  const proxyList* list;
  mappingBalance* balance;
};

static std::int32_t following(const proxyList* list, std::int32_t position) {
  return (position + 1) % list->count;
}

// The first active position behind `position`, else, after one full turn, the
// position where that turn ends.
static std::int32_t nextActive(const proxyList* list, std::int32_t position) {
  for (std::int32_t steps = 0; steps < list->count; ++steps) {
    position = following(list, position);
    if (list->active[position] != 0) break;
  }
  return position;
}

static std::int32_t roundRobin(const Selection* selection) {
  std::int32_t* cursor = &selection->balance->cursor;
  *cursor = nextActive(selection->list, *cursor);
  if (selection->list->active[*cursor] != 0) return *cursor;
  selection->req->traceE(selection->req, kTraceState,
                         "selectProxy: RR no active proxies found");
  return kNoEntry;
}

static std::int32_t weightedRoundRobin(const Selection* selection) {
  const proxyList* list = selection->list;
  std::int32_t* cursor = &selection->balance->cursor;
  const std::int32_t probe = nextActive(list, *cursor);
  if (list->active[probe] == 0) return kNoEntry;

  veskProxy* proxy = list->proxies[probe];
  if (--proxy->balance->turnsLeft == 0) {
    proxy->balance->turnsLeft = getProxyWeight(proxy);
    *cursor = nextActive(list, *cursor);
  }
  return probe;
}

// The first of the entries whose weight lies furthest beyond `bound`, below it
// for a sign of -1, above it for 1.
static std::int32_t extremeWeight(const Selection* selection, std::int64_t bound,
                                  std::int64_t sign) {
  const proxyList* list = selection->list;
  std::int32_t best = kNoEntry;
  for (std::int32_t i = 0; i < list->count; ++i) {
    if (list->active[i] == 0) continue;
    const std::int64_t weight = getProxyWeight(list->proxies[i]);
    if (sign * weight <= sign * bound) continue;
    bound = weight;
    best = i;
  }
  if (best >= 0) selection->balance->cursor = best;
  return best;
}

// Each weight is read once: a server may change it at any moment, and what is
// drawn from must agree with its sum.
static void sumWeights(const proxyList* list, mappingBalance* balance) {
  std::int64_t sum = 0;
  for (std::int32_t i = 0; i < kMaxProxies; ++i) {
    if (i < list->count && list->active[i] != 0)
      sum += std::clamp(getProxyWeight(list->proxies[i]), std::int64_t{0},
                        kMaxCountedWeight);
    balance->weightSlots[i] = static_cast<std::uint64_t>(sum);
  }
  balance->totalWeight = sum;
  // Nothing to draw from is looked at again: a load value may change it.
  balance->slotsStale = sum > 0 ? 0 : 1;
}

// Each entry owns as many numbers as its weight, in order of the list. What is
// kept are the bounds of these ranges, so memory doesn't follow the weights.
static bool buildWeightSlots(const Selection* selection) {
  mappingBalance* balance = selection->balance;
  if (!balance->weightSlots) {
    constexpr std::int64_t kSize = kMaxProxies * std::int64_t{sizeof(std::uint64_t)};
    balance->weightSlots =
        static_cast<std::uint64_t*>(newPermBlock(selection->req, kSize));
  }
  if (!balance->weightSlots) return false;
  sumWeights(selection->list, balance);
  return true;
}

// A number below `total`. One draw while that reaches every number.
static std::uint64_t drawBelow(std::uint64_t total) {
  auto drawn = static_cast<std::uint64_t>(std::rand());
  if (total > kDraws) drawn = drawn * kDraws + static_cast<std::uint64_t>(std::rand());
  return drawn % total;
}

static std::int32_t randomWeighted(const Selection* selection) {
  mappingBalance* balance = selection->balance;
  if (balance->slotsStale != 0 || !balance->weightSlots) {
    if (!buildWeightSlots(selection)) return kNoEntry;
  }
  if (balance->totalWeight <= 0) return kNoEntry;
  const std::uint64_t* bounds = balance->weightSlots;
  const std::uint64_t drawn = drawBelow(static_cast<std::uint64_t>(balance->totalWeight));
  const auto* owner = std::upper_bound(bounds, bounds + selection->list->count, drawn);
  const auto position = static_cast<std::int32_t>(owner - bounds);
  return position < selection->list->count ? position : kNoEntry;
}

static std::int32_t runAlgorithm(const Selection* selection) {
  switch (selection->balance->algorithm) {
    case BALANCE_ROUNDROBIN_WEIGHTED:
      return weightedRoundRobin(selection);
    case BALANCE_MIN:
      return extremeWeight(selection, kMinBound, -1);
    case BALANCE_MAX:
      return extremeWeight(selection, kMaxBound, 1);
    case BALANCE_RANDOM_WEIGHTED:
      return randomWeighted(selection);
    default:  // no other code leaves initProxy
      return roundRobin(selection);
  }
}

static bool ownsSession(const veskProxy* proxy, const char* replicationId) {
  const char* own = proxy->balance->replicationId;
  return own && *own && std::strncmp(own, replicationId, kReplicationIdLength) == 0;
}

static veskProxy* findOwner(const proxyList* list, const char* sessionId) {
  for (std::int32_t i = 0; i < list->count; ++i)
    if (ownsSession(list->proxies[i], sessionId)) return list->proxies[i];
  return nullptr;
}

static veskProxy* findBuddy(const proxyList* list, const char* buddy) {
  for (std::int32_t i = 0; i < list->count; ++i) {
    veskProxy* proxy = list->proxies[i];
    if (!isProxyActive(proxy)) continue;
    if (*buddy == kAnyBuddy || ownsSession(proxy, buddy)) return proxy;
  }
  return nullptr;
}

veskProxy* resolveServerId(mappingsTable* table, vesk_request* req, std::int32_t index) {
  const proxyList* list = table->mappingProxies[index];
  if (list->count == 1) return list->proxies[0];
  veskProxy* owner = findOwner(list, req->sessionId);
  if (!owner || isProxyActive(owner)) return owner;
  for (const char* buddy = getNextBuddy(req, nullptr); buddy;
       buddy = getNextBuddy(req, buddy)) {
    veskProxy* proxy = findBuddy(list, buddy);
    if (proxy) return proxy;
  }
  return nullptr;
}

// REQUIRES: tableMutex, and a session id.
static veskProxy* stickyProxy(mappingsTable* table, vesk_request* req,
                              std::int32_t index) {
  veskProxy* proxy = resolveServerId(table, req, index);
  if (proxy)
    req->traceE(req, kTraceState, "Found sticky session host %s", proxy->name);
  else
    req->log(req,
             "Sticky session breakage, a host for serving session %s not available.  "
             "Failing over to another server, but above session is broken.",
             req->sessionId);
  return proxy;
}

static veskProxy* ownerOrBalanced(mappingsTable* table, vesk_request* req,
                                  std::int32_t index) {
  const proxyList* list = table->mappingProxies[index];
  mappingBalance* balance = table->mappingBalances[index];
  if (list->count == 1) return list->proxies[0];
  if (balance->sticky != 0 && req->sessionId) {
    veskProxy* proxy = stickyProxy(table, req, index);
    if (proxy) return proxy;
  }
  const Selection selection{.req = req, .list = list, .balance = balance};
  const std::int32_t position = runAlgorithm(&selection);
  return position >= 0 ? list->proxies[position] : nullptr;
}

veskProxy* selectProxy(mappingsTable* table, vesk_request* req, std::int32_t index) {
  table->tableUse = kTableServing;
  veskProxy* proxy = ownerOrBalanced(table, req, index);
  if (!proxy) {
    req->traceE(req, kTraceState, "<null> selectProxy");
    return nullptr;
  }
  req->traceE(req, kTraceDetail, "%s selectProxy%s%s", proxy->name,
              getProxyRetryTime(proxy) != 0 ? " not reachable" : "",
              isProxyActive(proxy) ? "" : " not active");
  return proxy;
}

std::int32_t tryAnotherProxy(vesk_request* req, mappingsTable* table,
                             veskProxy** failedTargets, veskProxy* proxy,
                             std::uint32_t record) {
  if (!isClustered(table)) return 0;
  std::int32_t at = 0;
  while (at < kMaxProxies && failedTargets[at] && failedTargets[at] != proxy) ++at;
  // The table knows at most kMaxProxies servers, so a full list holds them all.
  if (at == kMaxProxies || failedTargets[at]) {
    req->traceE(req, kTraceDetail, "%s already in failed target list", proxy->name);
    return 0;
  }
  if (record) {
    failedTargets[at] = proxy;
    failedTargets[at + 1] = nullptr;
  }
  req->traceE(req, kTraceDetail, "%s not in failed target list", proxy->name);
  return 1;
}

// REQUIRES: tableMutex.
static bool reviveProxy(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                        std::int64_t now) {
  setProxyRetryTime(proxy, now);
  req->log(req,
           "%s reset proxy retry time to now since all servers for this mapping are "
           "marked unreachable",
           proxy->name);
  if (proxy->isAlive(proxy, req) == 0) return false;
  return addProxy(table, proxy, req, 0) == 0;
}

std::int32_t lastDitchFindReachableServer(mappingsTable* table, vesk_request* req,
                                          std::int32_t index, veskProxy** failedTargets) {
  const std::int64_t now = req->now(req);
  // The columns may move below, the records don't.
  const proxyList* list = table->mappingProxies[index];
  const mappingBalance* balance = table->mappingBalances[index];
  const char* key = table->mappings->entries[index].key;

  if (table->bootstrapped == 0 && retrieveServersFromBootstrapServer(table, req) > 0 &&
      balance->anyActive != 0) {
    req->traceE(req, kTraceState, "found reachable server using bootstrap server");
    return 0;
  }
  for (std::int32_t i = 0; i < list->count; ++i) {
    veskProxy* proxy = list->proxies[i];
    if (tryAnotherProxy(req, table, failedTargets, proxy, 0) == 0) continue;
    if (reviveProxy(table, req, proxy, now)) return 0;
  }
  req->traceE(req, kTraceState, "couldn't find reachable server for %s map", key);
  return -1;
}
