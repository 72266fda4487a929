#include "proxy/proxy_settings.h"

#include <cstdlib>
#include <cstring>

#include "context/guards.h"
#include "context/memory.h"
#include "context/text.h"
#include "properties/vesk_property.h"

constexpr int kDecimal = 10;

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

// The low 32 bits of the number at the start of a property, or `absent`.
static std::int32_t numberOr(const propertyTable* props, const char* key,
                             std::int32_t absent) {
  const char* value = getPropertyValue(props, key);
  if (!value) return absent;
  return static_cast<std::int32_t>(std::strtol(value, nullptr, kDecimal));
}

static std::uint32_t algorithmCode(vesk_request* req, const char* text) {
  for (const AlgorithmName& row : kAlgorithms)
    if (std::strcmp(row.text, text) == 0) return row.code;
  req->log(req, "unrecognized load balancing algorithm %s, defaulting to Round Robin",
           text);
  return BALANCE_ROUNDROBIN;
}

const char* algorithmName(std::uint32_t code) {
  for (const AlgorithmName& row : kAlgorithms)
    if (row.code == code) return row.text;
  return kAlgorithms[0].text;
}

// Both timers begin at 0: the first refresh is due at once, and nothing is known against
// the server.
static void readIntervals(veskProxy* proxy, vesk_request* req, const propertyTable* props,
                          std::int32_t retryInterval) {
  proxy->mapCheckInterval = numberOr(props, "mapcheck", kDefaultMapCheck);
  req->trace(req, "mapcheck interval in secs: %d", proxy->mapCheckInterval);
  setMapCheckTime(proxy, 0);
  // Ten minutes were bearable while a ping, or the next list, brought a server back
  // before.
  const std::int32_t usual =
      guarded(req, Guard::comeback) ? kShortPause : kDefaultProxyRetry;
  proxy->proxyRetryInterval =
      numberOr(props, "proxyretryinterval", retryInterval != 0 ? retryInterval : usual);
  req->trace(req, "proxy retry interval in secs: %d", proxy->proxyRetryInterval);
  setProxyRetryTime(proxy, 0);
}

// Told per server, since the limits of the request that set it up are the ones in force.
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
              orElse(id, "<null>"));
  if (!id) return 0;
  proxy->balance->replicationId = req->permStrdup(req, id);
  return proxy->balance->replicationId ? 0 : -1;
}

// What the server doesn't say counts as weight 1, round robin and sticky: one
// server among equals that keeps its sessions.
static std::int32_t readBalance(veskProxy* proxy, vesk_request* req,
                                const propertyTable* props) {
  auto* balance = static_cast<proxyBalance*>(newPermZeroed(req, sizeof(proxyBalance)));
  if (!balance) return -1;
  // Hung in before it is filled: destroying the proxy frees it from here on.
  proxy->balance = balance;
  balance->active = 1;
  balance->weight = numberOr(props, "weight", 1);
  balance->turnsLeft = balance->weight;

  const char* algorithm = orElse(getPropertyValue(props, "algorithm"), "ROUNDROBIN");
  balance->algorithm = algorithmCode(req, algorithm);
  req->trace(req, "installed %s load balancing algorithm.", algorithm);
  const char* sticky = orElse(getPropertyValue(props, "sticky"), "true");
  req->traceE(req, kTraceState, "%s sticky sessions: %s", proxy->name, sticky);
  balance->sticky = std::strcmp(sticky, "false") == 0 ? 0 : 1;
  return readReplicationId(proxy, req, props);
}

std::int32_t applySettings(veskProxy* proxy, vesk_request* req,
                           const propertyTable* props, std::int32_t retryInterval) {
  readIntervals(proxy, req, props, retryInterval);
  traceTimeouts(proxy, req);
  return readBalance(proxy, req, props);
}
