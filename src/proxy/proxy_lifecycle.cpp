#include "proxy/proxy_lifecycle.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "context/memory.h"
#include "context/vesk_mutex.h"
#include "properties/vesk_property.h"
#include "proxy/proxy_metrics.h"
#include "proxy/proxy_pool.h"
#include "proxy/proxy_props.h"
#include "proxy/proxy_refresh.h"
#include "proxy/proxy_service.h"
#include "proxy/proxy_settings.h"
#include "proxy/server_events.h"

constexpr int kDecimal = 10;

struct ServerAddress {
  char host[kMaxHostLength + 1];
  std::int32_t port;
};

// In field order. Nobody else writes these but a test.
static void installOperations(veskProxy* proxy) {
  proxy->handleRequest = proxy_handleRequest;
  proxy->destroyInetProxy = proxy_destroyInetProxy;
  proxy->destroyPooledSockets = proxy_destroyPooledSockets;
  proxy->fetchProps = fetchProps;
  proxy->initProxy = initProxy;
  proxy->refreshMappings = proxy_refreshMappings;
  proxy->isAlive = proxy_isAlive;
  proxy->sendPing = proxy_sendPing;
  proxy->addRef = proxyAddRef;
  proxy->release = proxyRelease;
  proxy->requestEnded = requestEnded;
}

veskProxy* veskProxyNew(vesk_request* req) {
  auto* proxy = static_cast<veskProxy*>(newPermZeroed(req, sizeof(veskProxy)));
  if (!proxy) return nullptr;
  installOperations(proxy);
  // A proxy without a lock would let two threads into its pool: better none.
  initSync(req, &proxy->lock, &proxy->lockHeld);
  if (!proxy->lock) {
    req->permFree(req, proxy);
    return nullptr;
  }
  (void)proxyAddRef(proxy, req);  // the count is 1: the creator's reference
  return proxy;
}

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

// The rest of the field is cleared: names are compared over their whole length.
static void copyName(veskProxy* proxy, const char* server) {
  const std::size_t length = strnlen(server, kProxyNameSize - 1);
  std::memcpy(proxy->name, server, length);
  std::memset(proxy->name + length, 0, kProxyNameSize - length);
}

// Takes over what the server said of itself, then asks for its mappings: a server
// without mappings serves nothing, and is no use to the table.
static std::int32_t applyProps(veskProxy* proxy, vesk_request* req,
                               const propertyTable* props, std::int32_t retryInterval) {
  if (applySettings(proxy, req, props, retryInterval) < 0) {
    req->lastError = ENOBUFS;  // nothing else can fail there
    return -1;
  }
  if (proxy_refreshMappings(proxy, req) < 0) {
    req->trace(req, "initProxy failed to initialize mappings");
    return -1;
  }
  return 0;
}

// The record is filled only as far as the server answered; destroyInetProxy copes with
// every state, so a failure needs no way back here.
static std::int32_t setUpFromServer(veskProxy* proxy, vesk_request* req,
                                    std::int32_t retryInterval) {
  if (veskMetrics) {
    proxy->metrics = newMetrics(req);
    if (!proxy->metrics) {
      req->lastError = ENOBUFS;
      return -1;
    }
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
  // The address is taken as it stands; text that is none fails at the first connect,
  // where the log can name the server.
  proxy->pool = initPool(req, proxy, address.host, address.port);
  if (proxy->pool) return 0;
  req->lastError = ENOBUFS;
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
  // The pool comes first: all that follows talks to the server through it.
  std::int32_t result = makePool(proxy, req, address);
  if (result == 0 && !temp) result = setUpFromServer(proxy, req, retryInterval);
  if (result < 0) req->log(req, "could not initialize proxy for %s", proxy->name);
  return result;
}

std::int32_t initProxy(veskProxy* proxy, vesk_request* req, const char* server,
                       std::int32_t retryInterval, std::int32_t temp) {
  // The pool says that it was set up: a second call for the same proxy finds it and
  // leaves everything as it is.
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

std::int32_t proxy_destroyInetProxy(veskProxy* proxy, vesk_request* req) {
  // The lock is left before the proxy goes: its record holds it.
  const std::int32_t left = proxy->release(proxy, req);
  if (left > 0) return left;
  (void)serverWasUnlisted(req, proxy);  // before its connections go: their end is no news
  // The connections first: closing them still looks at the rest of the record.
  destroyPool(proxy, req);
  freeProperties(req, proxy->mappings);
  destroyBalance(proxy, req);
  reportAndDestroyMetrics(proxy, req);
  freeSync(req, &proxy->lock, &proxy->lockHeld);
  req->trace(req, "%s destroyed.", proxy->name);
  req->permFree(req, proxy);
  return 0;
}
