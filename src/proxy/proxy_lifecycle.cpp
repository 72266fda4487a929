#include "proxy/proxy_lifecycle.h"

#include <cstdlib>
#include <cstring>

#include "context/text.h"
#include "context/vesk_mutex.h"
#include "properties/vesk_property.h"
#include "proxy/proxy_pool.h"
#include "proxy/proxy_props.h"
#include "proxy/proxy_refresh.h"

constexpr int kDecimal = 10;

struct ServerAddress {
  char host[kMaxHostLength + 1];
  std::int32_t port;
};

struct AlgorithmName {
  const char* text;
  std::uint32_t code;
};

constexpr AlgorithmName kAlgorithms[] = {
    {"ROUNDROBIN", BALANCE_ROUNDROBIN},
    {"ROUNDROBIN_WEIGHTED", BALANCE_ROUNDROBIN_WEIGHTED},
    {"MIN", BALANCE_MIN},
    {"MAX", BALANCE_MAX},
    {"RANDOM_WEIGHTED", BALANCE_RANDOM_WEIGHTED},
};

// Takes "<host>:<port>" apart: 0, or -1 without a colon or with a host too long
// to be an address.
static std::int32_t parseServer(const char* server, ServerAddress* out) {
  const char* colon = std::strchr(server, ':');
  if (!colon || colon - server > kMaxHostLength) return -1;
  const auto length = static_cast<std::size_t>(colon - server);
  std::memcpy(out->host, server, length);
  out->host[length] = '\0';
  out->port = static_cast<std::int32_t>(std::strtol(colon + 1, nullptr, kDecimal));
  return 0;
}

static void copyName(veskProxy* proxy, const char* server) {
  const std::size_t length = strnlen(server, kProxyNameSize - 1);
  std::memcpy(proxy->name, server, length);
  std::memset(proxy->name + length, 0, kProxyNameSize - length);
}

static const char* propertyOr(const propertyTable* props, const char* key,
                              const char* absent) {
  const char* value = getPropertyValue(props, key);
  return value ? value : absent;
}

// The low 32 bits of the number at the start of a property, or `absent`.
static std::int32_t numberOr(const propertyTable* props, const char* key,
                             std::int32_t absent) {
  const char* value = getPropertyValue(props, key);
  if (!value) return absent;
  return static_cast<std::int32_t>(std::strtol(value, nullptr, kDecimal));
}

// New metrics of a proxy, or null when memory or the host's locks run out.
static proxyMetrics* makeMetrics(vesk_request* req) {
  auto* metrics = static_cast<proxyMetrics*>(req->permMalloc(req, sizeof(proxyMetrics)));
  if (!metrics) return nullptr;
  std::memset(metrics, 0, sizeof *metrics);
  metrics->startMillis = req->startTime;
  metrics->batchStartMillis = req->startTime;
  metrics->batchSize = kMetricsBatchSize;
  initSync(req, &metrics->lock, &metrics->lockHeld);
  if (metrics->lock) return metrics;
  req->permFree(req, metrics);
  return nullptr;
}

static std::uint32_t algorithmCode(vesk_request* req, const char* text) {
  for (const AlgorithmName& row : kAlgorithms)
    if (std::strcmp(row.text, text) == 0) return row.code;
  req->log(req, "unrecognized load balancing algorithm %s, defaulting to Round Robin",
           text);
  return BALANCE_ROUNDROBIN;
}

static void readIntervals(veskProxy* proxy, vesk_request* req, const propertyTable* props,
                          std::int32_t retryInterval) {
  proxy->mapCheckInterval = numberOr(props, "mapcheck", kDefaultMapCheck);
  req->trace(req, "mapcheck interval in secs: %d", proxy->mapCheckInterval);
  setMapCheckTime(proxy, 0);
  proxy->proxyRetryInterval =
      numberOr(props, "proxyretryinterval",
               retryInterval != 0 ? retryInterval : kDefaultProxyRetry);
  req->trace(req, "proxy retry interval in secs: %d", proxy->proxyRetryInterval);
  setProxyRetryTime(proxy, 0);
}

static void traceTimeouts(const veskProxy* proxy, vesk_request* req) {
  constexpr std::int32_t kMillisPerSecond = 1000;
  req->traceE(req, kTraceState, "%s socket timeouts (c%d/r%d/s%d) secs", proxy->name,
              req->connectTimeout / kMillisPerSecond, req->recvTimeout / kMillisPerSecond,
              req->sendTimeout / kMillisPerSecond);
}

// Copies the replication id, if there is one: 0, or -1 when memory runs out. A
// server without its id would lose its sticky sessions, so that is a failure.
static std::int32_t readReplicationId(veskProxy* proxy, vesk_request* req,
                                      const propertyTable* props) {
  const char* id = getPropertyValue(props, "rep_id");
  req->traceE(req, kTraceState, "%s replication Id: %s .", proxy->name,
              id ? id : "<null>");
  if (!id) return 0;
  proxy->balance->replicationId = req->permStrdup(req, id);
  return proxy->balance->replicationId ? 0 : -1;
}

// What the server doesn't say counts as weight 1, round robin and sticky: one
// server among equals that keeps its sessions.
static std::int32_t readBalance(veskProxy* proxy, vesk_request* req,
                                const propertyTable* props) {
  auto* balance = static_cast<proxyBalance*>(req->permMalloc(req, sizeof(proxyBalance)));
  if (!balance) return -1;
  std::memset(balance, 0, sizeof *balance);
  proxy->balance = balance;
  balance->active = 1;
  balance->weight = numberOr(props, "weight", 1);
  balance->turnsLeft = balance->weight;

  const char* algorithm = propertyOr(props, "algorithm", "ROUNDROBIN");
  balance->algorithm = algorithmCode(req, algorithm);
  req->trace(req, "installed %s load balancing algorithm.", algorithm);
  const char* sticky = propertyOr(props, "sticky", "true");
  req->traceE(req, kTraceState, "%s sticky sessions: %s", proxy->name, sticky);
  balance->sticky = std::strcmp(sticky, "false") == 0 ? 0 : 1;
  return readReplicationId(proxy, req, props);
}

// Takes over what the server said of itself, then its mappings.
static std::int32_t applyProps(veskProxy* proxy, vesk_request* req,
                               const propertyTable* props, std::int32_t retryInterval) {
  readIntervals(proxy, req, props, retryInterval);
  traceTimeouts(proxy, req);
  if (readBalance(proxy, req, props) < 0) return -1;
  if (proxy_refreshMappings(proxy, req) < 0) {
    req->trace(req, "initProxy failed to initialize mappings");
    return -1;
  }
  return 0;
}

static std::int32_t setUpFromServer(veskProxy* proxy, vesk_request* req,
                                    std::int32_t retryInterval) {
  if (veskMetrics) {
    proxy->metrics = makeMetrics(req);
    if (!proxy->metrics) return -1;
  }
  propertyTable* props = fetchProps(req, proxy, "server-props", nullptr);
  if (!props) {
    req->trace(req, "initProxy failed to fetch server properties");
    return -1;
  }
  const std::int32_t result = applyProps(proxy, req, props, retryInterval);
  freeProperties(req, props);
  return result;
}

static std::int32_t makePool(veskProxy* proxy, vesk_request* req,
                             const ServerAddress& address) {
  proxy->pool = initPool(req, proxy, address.host, address.port);
  if (proxy->pool) return 0;
  req->log(req, "initProxy failed to initialize socket pool");
  return -1;
}

// A new proxy gets its name, pool and, unless it is a temp one, all the rest.
static std::int32_t setUp(veskProxy* proxy, vesk_request* req, const char* server,
                          std::int32_t retryInterval, std::int32_t temp) {
  copyName(proxy, server);
  ServerAddress address;
  if (parseServer(server, &address) < 0) {
    req->log(req, "Invalid server %.200s. Please use <ip>:<port> notation", server);
    return -1;
  }
  std::int32_t result = makePool(proxy, req, address);
  if (result == 0 && !temp) result = setUpFromServer(proxy, req, retryInterval);
  if (result < 0) req->log(req, "could not initialize proxy for %s", proxy->name);
  return result;
}

std::int32_t initProxy(veskProxy* proxy, vesk_request* req, const char* server,
                       std::int32_t retryInterval, std::int32_t temp) {
  if (!proxy->pool && setUp(proxy, req, server, retryInterval, temp) < 0) return -1;
  req->trace(req, "initialized%sproxy for %s", temp ? " temp " : " ", proxy->name);
  return 0;
}

// No lock for the list: no other thread has the proxy by now. Destroying one
// connection may flush the rest, so the head is read anew each time.
static void destroyPool(veskProxy* proxy, vesk_request* req) {
  proxyPool* pool = proxy->pool;
  if (!pool) return;
  while (VeskConnection* connection = pool->freeConnections) {
    pool->freeConnections = connection->next;
    req->trace(req, "%s closing socket %d", proxy->name, connection->socket);
    destroyVeskConnection(req, proxy, connection);
  }
  req->permFree(req, pool);
}

static void destroyBalance(veskProxy* proxy, vesk_request* req) {
  proxyBalance* balance = proxy->balance;
  if (!balance) return;
  if (balance->replicationId) req->permFree(req, balance->replicationId);
  req->permFree(req, balance);
}

static void reportAndDestroyMetrics(veskProxy* proxy, vesk_request* req) {
  proxyMetrics* metrics = proxy->metrics;
  if (!metrics) return;
  const std::int64_t requests = metrics->requestCount;
  const std::int64_t average = metrics->totalResponseMillis / (requests ? requests : 1);
  req->log(req, "proxy metrics for %s", proxy->name);
  req->log(req, "\tAverage response time: %i ms", clampToInt32(average));
  req->log(req, "\tTotal Requests handled: %i", clampToInt32(requests));
  freeSync(req, &metrics->lock, &metrics->lockHeld);
  req->permFree(req, metrics);
}

std::int32_t proxy_destroyInetProxy(veskProxy* proxy, vesk_request* req) {
  const std::int32_t left = proxy->release(proxy, req);
  if (left > 0) return left;
  destroyPool(proxy, req);
  freeProperties(req, proxy->mappings);
  destroyBalance(proxy, req);
  reportAndDestroyMetrics(proxy, req);
  freeSync(req, &proxy->lock, &proxy->lockHeld);
  req->trace(req, "%s destroyed.", proxy->name);
  req->permFree(req, proxy);
  return 0;
}
