#include "maptable/server_store.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "context/memory.h"
#include "context/request_block.h"
#include "maptable/membership.h"
#include "maptable/store_file.h"
#include "maptable/table_guard.h"

constexpr char kStoreKey[] = "proxyservers";
constexpr char kStoreStart[] = "proxyservers=";
constexpr char kSeparator = ';';
constexpr char kSeparators[] = ";";
constexpr int kServerKeySize = 32;
// What a name from a server's list may hold but the store would not give back.
constexpr char kUnstorable[] = ";\\\r\n";

static bool isGiven(const char* text) {
  return text && text[0] != '\0';
}

// Without a text to compare with, the next occasion writes whatever the list is.
static void forgetStored(mappingsTable* table, vesk_request* req) {
  freePerm(req, table->storedServers);
  table->storedServers = nullptr;
}

// With the system's own word: the path, the rights and the disk look the same from here.
static void reportUnreadable(vesk_request* req, const char* path) {
  req->log(req, "could not read contents of %s: %s", path, std::strerror(errno));
}

// The size of a file that can be sought in and fits into an allocation; else 0.
// A first byte is asked for because a folder opens, and may even have a size.
static std::int32_t storeSize(vesk_request* req, std::FILE* file, const char* path) {
  if (std::fgetc(file) == EOF) {
    if (std::ferror(file)) reportUnreadable(req, path);
    return 0;
  }
  if (std::fseek(file, 0, SEEK_END) != 0) return 0;
  const long size = std::ftell(file);
  if (size >= INT_MAX) {
    errno = EFBIG;
    reportUnreadable(req, path);
    return 0;
  }
  return size > 0 ? static_cast<std::int32_t>(size) : 0;
}

// Reads the file's text into storedServers, which stays null for a file that is empty or
// unreadable. False without memory.
static bool readText(mappingsTable* table, vesk_request* req, std::FILE* file) {
  const char* path = table->serverStore;
  const std::int32_t size = storeSize(req, file, path);
  if (size == 0) return true;
  auto* text = static_cast<char*>(newPermBlock(req, std::int64_t{size} + 1));
  if (!text) return false;
  std::rewind(file);
  const std::size_t got = std::fread(text, 1, static_cast<std::size_t>(size), file);
  if (got == 0) {
    reportUnreadable(req, path);
    req->permFree(req, text);
    return true;
  }
  text[got] = '\0';
  table->storedServers = text;
  return true;
}

// The same for the file that is configured, if one is.
static bool readStore(mappingsTable* table, vesk_request* req) {
  const char* path = table->serverStore;
  if (!isGiven(path)) {
    req->log(req, "can't load servers from serverstore, no serverstore specified.");
    return true;
  }
  std::FILE* file = req->fileOpen(req, path, "r");
  if (!file) {
    req->log(req, "could not open serverstore \"%s\": %s", path, std::strerror(errno));
    return true;
  }
  req->trace(req, "loadServersFromStore(%s)", path);
  const bool hadMemory = readText(table, req, file);
  (void)std::fclose(file);  // it was only read
  return hadMemory;
}

// Puts the names of a store's value into `servers`, numbered in their order. False
// without memory; names that find the table full are left out, with a log line.
static bool splitNames(vesk_request* req, const char* value, propertyTable* servers) {
  const RequestBlock names{req, req->strdup(req, value)};
  if (!names.bytes) return false;
  char* rest = nullptr;
  std::int32_t number = 0;
  for (const char* name = strtok_r(names.bytes, kSeparators, &rest); name;
       name = strtok_r(nullptr, kSeparators, &rest)) {
    char key[kServerKeySize];
    (void)std::snprintf(key, sizeof(key), "Server_%i", ++number);
    if (addCopies(req, servers, key, name) < 0) return servers->count == kMaxProperties;
  }
  return true;
}

// Adds the names of the store's text. False without memory.
static bool addStoredNames(vesk_request* req, const char* text, propertyTable* servers) {
  propertyTable* store = parseProperties(req, text);
  if (!store) return false;
  const char* value = getPropertyValue(store, kStoreKey);
  const bool whole = !value || splitNames(req, value, servers);
  freeProperties(req, store);
  return whole;
}

propertyTable* readStoredServers(mappingsTable* table, vesk_request* req) {
  forgetStored(table, req);
  if (!readStore(table, req)) return nullptr;
  propertyTable* servers = parseProperties(req, "");
  if (!servers || !table->storedServers) return servers;
  if (addStoredNames(req, table->storedServers, servers)) return servers;
  freeProperties(req, servers);
  return nullptr;
}

static char* appendText(char* end, const char* text) {
  const std::size_t length = std::strlen(text);
  std::memcpy(end, text, length + 1);
  return end + length;
}

// Appends the servers whose flag is set, or those whose flag is clear. The bootstrap
// server is asked first at every start anyway, and names itself if it serves.
static char* appendServers(const mappingsTable* table, char* end, bool active) {
  const proxyList* servers = &table->masterList;
  for (std::int32_t i = 0; i < servers->count; ++i) {
    const veskProxy* proxy = servers->proxies[i];
    if ((servers->active[i] != 0) != active) continue;
    if (table->bootstrapServer && isProxyNamed(proxy, table->bootstrapServer)) continue;
    if (std::strpbrk(proxy->name, kUnstorable)) continue;
    end = appendText(end, proxy->name);
    *end++ = kSeparator;
    *end = '\0';
  }
  return end;
}

// The text that the store should hold, from permMalloc, or null. Servers out of service
// stay in it, at the end: they may be all that answers at the next start.
static char* makeStoreText(const mappingsTable* table, vesk_request* req) {
  std::size_t size = sizeof(kStoreStart);
  for (std::int32_t i = 0; i < table->masterList.count; ++i)
    size += std::strlen(table->masterList.proxies[i]->name) + sizeof(kSeparator);
  auto* text = static_cast<char*>(newPermBlock(req, static_cast<std::int64_t>(size)));
  if (!text) return nullptr;
  char* end = appendText(text, kStoreStart);
  end = appendServers(table, end, true);
  (void)appendServers(table, end, false);
  return text;
}

// When a write breaks off in the file itself nobody knows what that holds, so it is
// compared with nothing and written anew at the next occasion.
static bool writeStore(mappingsTable* table, vesk_request* req, const char* text) {
  const char* path = table->serverStore;
  const StoreWrite written = writeStoreFile(req, path, text);
  if (written == StoreWrite::done) {
    req->traceE(req, kTraceDetail, "persisted servers in %s: %s", path, text);
    return true;
  }
  const char* reason = std::strerror(errno);
  if (written == StoreWrite::unopened)
    req->log(req, "could not open \"%s\": %s", path, reason);
  else
    req->log(req, "could not persist servers in %s: %s", path, reason);
  if (written == StoreWrite::inDoubt) forgetStored(table, req);
  return false;
}

// The text that the store should hold, or null: without memory, or without a server.
static char* textToStore(mappingsTable* table, vesk_request* req, std::uint32_t lock) {
  const TableGuard guard(table, req, lock);
  return table->masterList.count == 0 ? nullptr : makeStoreText(table, req);
}

// The file is written without the lock, where this call took it: a slow disk must not
// stop the requests. Then only one thread ever comes here.
// What hasn't changed isn't written: a store on a slow disk would hold up all requests
// with each update, and a write that breaks off loses what was there.
std::int32_t persistServers(mappingsTable* table, vesk_request* req, std::uint32_t lock) {
  const char* path = table->serverStore;
  if (!isGiven(path)) {
    req->log(req, "can't persist servers, no serverstore specified.");
    return -1;
  }
  char* text = textToStore(table, req, lock);
  if (!text) return table->masterList.count == 0 ? 0 : -1;
  if (table->storedServers && std::strcmp(table->storedServers, text) == 0) {
    req->trace(req, "no changes to serverstore %s", path);
    req->permFree(req, text);
    return 0;
  }
  if (!writeStore(table, req, text)) {
    req->permFree(req, text);
    return -1;
  }
  forgetStored(table, req);
  table->storedServers = text;
  return 0;
}
