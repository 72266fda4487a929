#include "fake_cluster.h"

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "context/guards.h"
#include "context/vesk_mutex.h"
#include "maptable/session_outcome.h"
#include "maptable/table_lifecycle.h"
#include "proxy/proxy_error.h"
#include "proxy/proxy_lifecycle.h"
#include "proxy/proxy_pool.h"
#include "proxy/proxy_refresh.h"

static FakeCluster* current = nullptr;

// Null for a server that the test didn't name.
static FakeServer* serverOf(const veskProxy* proxy) {
  const auto found = current->servers.find(proxy->name);
  return found == current->servers.end() ? nullptr : &found->second;
}

static bool installMappings(veskProxy* proxy, vesk_request* req,
                            const std::string& text) {
  propertyTable* fresh = parseProperties(req, text.c_str());
  if (!fresh) return false;
  {
    const SyncGuard guard(req, &proxy->lock, &proxy->lockHeld);
    std::swap(fresh, proxy->mappings);
  }
  freeProperties(req, fresh);
  return true;
}

static bool installBalance(veskProxy* proxy, vesk_request* req,
                           const FakeServer& server) {
  proxy->balance = static_cast<proxyBalance*>(req->permMalloc(req, sizeof(proxyBalance)));
  if (!proxy->balance) return false;
  char* id = req->permStrdup(req, server.replicationId);
  *proxy->balance = {
      server.weight, server.weight, server.algorithm, server.sticky, id, 1};
  return id || !server.replicationId;
}

static std::int32_t fakeInit(veskProxy* proxy, vesk_request* req, const char* server,
                             std::int32_t /*retryInterval*/, std::int32_t temp) {
  current->asked += server + std::string(" ");
  (void)std::snprintf(proxy->name, sizeof(proxy->name), "%.63s", server);
  if (!std::strchr(server, ':')) return -1;
  if (temp) return 0;
  const FakeServer* known = serverOf(proxy);
  if (!known || !known->up || !installBalance(proxy, req, *known)) return -1;
  return installMappings(proxy, req, known->mappings) ? 0 : -1;
}

static propertyTable* fakeFetch(vesk_request* req, veskProxy* proxy, const char* set,
                                std::int32_t* sequence) {
  FakeServer* server = serverOf(proxy);
  if (std::strcmp(set, "server-props") == 0) {
    ++server->questions;
    return server->up ? parseProperties(req, "") : nullptr;
  }
  EXPECT_STREQ(set, "clustered-servers");
  *sequence = -1;
  if (!server || !server->up) return nullptr;
  ++server->lists;
  *sequence = server->listSequence;
  std::string text;
  for (const std::string& name : server->clustered)
    text += "Server_" + std::to_string(text.size()) + "=" + name + "\n";
  return parseProperties(req, text.c_str());
}

static std::int32_t fakeRefresh(veskProxy* proxy, vesk_request* req) {
  FakeServer* server = serverOf(proxy);
  ++server->refreshes;
  const std::int32_t result = server->refreshed;
  if (result != 0) return result;
  return installMappings(proxy, req, server->mappings) ? 0 : -1;
}

static Reply nextReply(FakeServer* server) {
  if (!server->up) return {.error = ECONNREFUSED, .sequence = -1, .unreachable = true};
  if (server->replies.empty()) return {};
  const Reply reply = server->replies.front();
  server->replies.pop_front();
  return reply;
}

static std::int32_t fakeRequest(vesk_request* req, veskProxy* proxy, const char* extra,
                                std::int32_t* sequence) {
  EXPECT_EQ(extra, nullptr);
  current->forwarded += proxy->name + std::string(" ");
  const Reply reply = nextReply(serverOf(proxy));
  *sequence = reply.sequence;
  if (reply.cookie) noteSessionCookie(req, reply.cookie);
  req->lastError = reply.error;
  if (reply.error == 0) return 0;
  if (reply.unreachable) takeOutOfService(req, proxy);
  if (reply.last) serverOf(proxy)->up = false;
  proxyerror(req, proxy);
  return -1;
}

// The operation `newProxy` of the tables here.
static veskProxy* fakeProxy(vesk_request* req) {
  if (current->created >= current->mostCreated) return nullptr;
  veskProxy* proxy = veskProxyNew(req);
  if (!proxy) return nullptr;
  ++current->created;
  proxy->handleRequest = fakeRequest;
  proxy->destroyInetProxy = [](veskProxy* self, vesk_request* by) {
    ++current->destroyed;
    return proxy_destroyInetProxy(self, by);
  };
  proxy->destroyPooledSockets = [](vesk_request*, veskProxy* self) {
    EXPECT_EQ(self->lockHeld, 1);
    ++serverOf(self)->flushes;
  };
  proxy->fetchProps = fakeFetch;
  proxy->initProxy = fakeInit;
  proxy->refreshMappings = fakeRefresh;
  proxy->isAlive = [](veskProxy* self, vesk_request* by) {
    return guarded(by, Guard::comeback) ? proxy_isAlive(self, by)
                                        : self->sendPing(self, by);
  };
  proxy->sendPing = [](veskProxy* self, vesk_request* by) {
    ++serverOf(self)->pings;
    by->lastError = 0;  // as a new connection does
    if (serverOf(self)->up) return 1;
    setProxyActive(self, false);  // as the pool does
    return 0;
  };
  proxy->requestEnded = [](veskProxy*, vesk_request*) { ++current->ended; };
  return proxy;
}

FakeCluster::FakeCluster() {
  current = this;
}

FakeCluster::~FakeCluster() {
  EXPECT_EQ(created, destroyed);
  current = nullptr;
}

MapTable::MapTable()
    : path(::testing::TempDir() + "vesk-store-" + std::to_string(getpid())) {
  makeTable(nullptr, nullptr);
}

MapTable::~MapTable() {
  mappingsTableDelete(table, t.req);
  EXPECT_EQ(t.permBlocks, 0);
  EXPECT_EQ(t.leaks(), 0);
  std::filesystem::remove_all(path);
}

void MapTable::makeTable(const char* store, const char* bootstrap) {
  mappingsTableDelete(table, t.req);
  table = mappingsTableNew(t.req, store, bootstrap, 0);
  if (table) table->newProxy = fakeProxy;
}

veskProxy* MapTable::join(const std::string& name, const char* mappings) {
  FakeServer& server = cluster[name];
  if (mappings) server.mappings = mappings;
  veskProxy* proxy = table->newProxy(t.req);
  EXPECT_EQ(proxy->initProxy(proxy, t.req, name.c_str(), 0, 0), 0);
  (void)addProxy(table, proxy, t.req, 1);
  return proxy;
}

void MapTable::update(veskProxy* proxy, const std::string& mappings,
                      std::int64_t failing) {
  ASSERT_TRUE(installMappings(proxy, t.req, mappings));
  t.failAllocation = failing ? t.allocations + failing : 0;
  updateProxy(table, proxy, t.req, 1);
}

void MapTable::remove(veskProxy* proxy) {
  removeProxy(table, proxy, t.req, 1);
}

std::string MapTable::stored() const {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string MapTable::names(const proxyList& list) {
  std::string text;
  for (std::int32_t i = 0; i < list.count; ++i) {
    const std::string name = list.proxies[i]->name;
    text += list.active[i] ? " " + name : " [" + name + "]";
  }
  return text;
}

std::vector<std::string> MapTable::mappings() const {
  std::vector<std::string> lines;
  for (std::int32_t i = 0; i < table->mappings->count; ++i) {
    const property& pair = table->mappings->entries[i];
    lines.push_back(std::string(pair.key) + "=" + pair.value +
                    names(*table->mappingProxies[i]) +
                    (table->mappingBalances[i]->anyActive ? "" : " none"));
  }
  return lines;
}
