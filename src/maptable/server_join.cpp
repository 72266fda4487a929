#include "maptable/server_join.h"

#include "maptable/membership.h"

ServerJoin joinServer(mappingsTable* table, vesk_request* req, const char* server) {
  if (!hasRoomForServer(table)) return ServerJoin::full;
  veskProxy* proxy = table->newProxy(req);
  if (!proxy) return ServerJoin::noMemory;
  const auto interval = static_cast<std::int32_t>(table->proxyRetryInterval);
  if (proxy->initProxy(proxy, req, server, interval, 0) == 0 &&
      addProxy(table, proxy, req, 0) == 0)
    return ServerJoin::joined;
  (void)proxy->destroyInetProxy(proxy, req);  // nobody else holds a reference
  return ServerJoin::failed;
}

void reportServersRefused(vesk_request* req, std::int32_t refused) {
  if (refused == 0) return;
  req->log(req, "%d servers not added, the table is full at %d servers", refused,
           kMaxProxies);
}
