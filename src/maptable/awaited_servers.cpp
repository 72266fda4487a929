#include "maptable/awaited_servers.h"

#include <cstring>

constexpr std::int32_t kNotAwaited = -1;

// A name is kept as far as a proxy's name would hold it, which is how lists are compared.
static bool isNamed(const awaitedServer& server, const char* name) {
  return std::strncmp(server.name, name, kProxyNameSize - 1) == 0;
}

static std::int32_t findAwaited(const mappingsTable* table, const char* name) {
  for (std::int32_t i = 0; i < table->awaitedCount; ++i)
    if (isNamed(table->awaited[i], name)) return i;
  return kNotAwaited;
}

static awaitedServer* newAwaited(mappingsTable* table, const char* name) {
  // As many as the table takes servers: more could never join.
  if (table->awaitedCount >= kMaxProxies) return nullptr;
  awaitedServer* server = &table->awaited[table->awaitedCount++];
  std::memset(server, 0, sizeof *server);
  std::memcpy(server->name, name, strnlen(name, kProxyNameSize - 1));
  return server;
}

// A server that never joined has named no interval, so the connector's own counts; where
// that isn't given, a short one: the list says that the server should be there.
static std::int64_t pauseOf(const mappingsTable* table) {
  return table->proxyRetryInterval != 0 ? std::int64_t{table->proxyRetryInterval}
                                        : std::int64_t{kShortPause};
}

bool awaitServer(mappingsTable* table, vesk_request* req, const char* name) {
  const std::int32_t at = findAwaited(table, name);
  // One that failed again keeps its place and gets a new pause.
  awaitedServer* server = at >= 0 ? &table->awaited[at] : newAwaited(table, name);
  if (server) server->nextAttempt = req->now(req) + pauseOf(table);
  return server != nullptr;
}

// A name whose time has come counts as unknown, so that whoever meets it next tries it.
bool isAwaitedLater(const mappingsTable* table, vesk_request* req, const char* name) {
  const std::int32_t at = findAwaited(table, name);
  return at >= 0 && table->awaited[at].nextAttempt > req->now(req);
}

// The order means nothing: each is tried when its own time has come.
static void removeAwaited(mappingsTable* table, std::int32_t at) {
  table->awaited[at] = table->awaited[--table->awaitedCount];
}

void forgetAwaited(mappingsTable* table, const char* name) {
  const std::int32_t at = findAwaited(table, name);
  if (at >= 0) removeAwaited(table, at);
}

static bool isListed(const awaitedServer& server, const propertyTable* servers) {
  for (std::int32_t i = 0; i < servers->count; ++i)
    if (isNamed(server, servers->entries[i].value)) return true;
  return false;
}

void keepAwaited(mappingsTable* table, const propertyTable* servers) {
  // From the end: the last one fills the place of one that goes.
  for (std::int32_t i = table->awaitedCount - 1; i >= 0; --i)
    if (!isListed(table->awaited[i], servers)) removeAwaited(table, i);
}

bool nextAwaited(const mappingsTable* table, std::int64_t now, char* name) {
  for (std::int32_t i = 0; i < table->awaitedCount; ++i) {
    if (table->awaited[i].nextAttempt > now) continue;
    // A copy: the attempt runs without the lock, and the entry may move meanwhile.
    std::memcpy(name, table->awaited[i].name, kProxyNameSize);
    return true;
  }
  return false;
}
