#include "maptable/request_filter.h"

#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "context/request_block.h"
#include "context/vesk_mutex.h"
#include "maptable/membership.h"

constexpr std::int32_t kNoMapping = -1;
constexpr std::string_view kHostMark = "//";
constexpr std::string_view kSuffixMark = "*.";
// What may follow a prefix in a URI.
constexpr std::string_view kBoundaries = "/&#";
constexpr auto kNowhere = std::string_view::npos;

PatternParts splitPattern(std::string_view pattern) {
  PatternParts parts{};
  parts.path = pattern;
  if (pattern.starts_with(kHostMark)) {
    parts.hasHost = true;
    parts.path.remove_prefix(kHostMark.size());
    const std::size_t slash = std::min(parts.path.find('/'), parts.path.size());
    parts.host = {parts.path.data(), slash};
    parts.path.remove_prefix(slash);
  }
  // No substr here: it would bring in the C++ library for a check that can't fail.
  const std::size_t star = std::min(parts.path.find('*'), parts.path.size());
  parts.prefix = {parts.path.data(), star};
  if (star == parts.path.size()) return parts;
  parts.tail = parts.path;
  parts.tail.remove_prefix(star + 1);
  parts.contains = parts.tail.ends_with('*');
  if (parts.contains) parts.tail.remove_suffix(1);
  return parts;
}

static bool hostFits(const PatternParts& pattern, const FilterSubject& subject) {
  if (!pattern.hasHost) return true;
  return subject.hasHost && subject.host.size() == pattern.host.size() &&
         strncasecmp(subject.host.data(), pattern.host.data(), pattern.host.size()) == 0;
}

// Host and prefix are no conditions of a contains pattern: the prefix only says
// from where on the tail is looked for. An offset behind the end finds nothing.
static bool textFits(const PatternParts& pattern, const FilterSubject& subject) {
  if (pattern.contains) {
    const std::size_t from = pattern.prefix.size();
    return subject.uri.find(pattern.tail, from) != kNowhere ||
           subject.strippedPath.find(pattern.tail, from) != kNowhere;
  }
  return subject.uri.starts_with(pattern.prefix) &&
         (subject.uri.ends_with(pattern.tail) ||
          subject.strippedPath.ends_with(pattern.tail)) &&
         hostFits(pattern, subject);
}

static bool boundaryFits(const PatternParts& pattern, const FilterSubject& subject) {
  if (pattern.prefix.size() >= subject.uri.size()) return true;
  return kBoundaries.find(subject.uri[pattern.prefix.size()]) != kNowhere;
}

// Whether the tail stands in the URI only behind its last ';', so that nothing but
// a path parameter looks like the extension.
static bool onlyInParameters(const PatternParts& pattern, const FilterSubject& subject) {
  if (!subject.hadParameters || pattern.tail.empty()) return false;
  // Without a ';' of its own the URI has nowhere to search, and nothing is found.
  const std::size_t found = subject.uri.find(pattern.tail, subject.uri.rfind(';'));
  return found != kNowhere && found == subject.uri.find(pattern.tail);
}

PatternMatch matchPattern(const PatternParts& pattern, const FilterSubject& subject) {
  if (subject.ignoreSuffix && pattern.path.starts_with(kSuffixMark))
    return PatternMatch::suffixIgnored;
  if (!textFits(pattern, subject)) return PatternMatch::no;
  if (!boundaryFits(pattern, subject)) return PatternMatch::no;
  if (onlyInParameters(pattern, subject)) return PatternMatch::parametersIgnored;
  return PatternMatch::matched;
}

char* removePathParms(vesk_request* req, const char* text) {
  const char* semicolon = std::strchr(text, ';');
  if (!semicolon || semicolon - text >= INT_MAX) return nullptr;
  const auto length = static_cast<std::size_t>(semicolon - text);
  auto* copy =
      static_cast<char*>(req->malloc(req, static_cast<std::int32_t>(length + 1)));
  if (!copy) return nullptr;
  std::memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

// Gives one server its chance to come back and to say what it serves now.
// REQUIRES: tableMutex.
static void refreshServer(mappingsTable* table, vesk_request* req, veskProxy* proxy,
                          bool activeInTable) {
  if (!activeInTable) {
    if (proxy->isAlive(proxy, req) == 0) return;
    addProxy(table, proxy, req, 0);
  }
  const std::int32_t refreshed = proxy->refreshMappings(proxy, req);
  if (refreshed == 0) updateProxy(table, proxy, req, 0);
  if (refreshed < 0 && !isProxyActive(proxy)) removeProxy(table, proxy, req, 0);
}

// The walk changes the flags that it tests, so it goes over a copy of the list.
// REQUIRES: tableMutex.
static void refreshServers(mappingsTable* table, vesk_request* req) {
  const proxyList snapshot = table->masterList;
  for (std::int32_t i = 0; i < snapshot.count; ++i)
    refreshServer(table, req, snapshot.proxies[i], snapshot.active[i] != 0);
}

static bool mappingMatches(vesk_request* req, const char* key,
                           const FilterSubject& subject) {
  const PatternParts pattern = splitPattern(key);
  switch (matchPattern(pattern, subject)) {
    case PatternMatch::matched:
      req->trace(req, "filterRequest:   matched %s", key);
      return true;
    case PatternMatch::suffixIgnored:  // the path part ends where the key does
      req->trace(req, "filtering ignored suffix: %s", pattern.path.data());
      return false;
    case PatternMatch::parametersIgnored:
      req->trace(req, "filterRequest: ignoring extension match after \";\"");
      return false;
    case PatternMatch::no:
      return false;
  }
  return false;
}

// REQUIRES: tableMutex.
static std::int32_t firstMatch(const mappingsTable* table, vesk_request* req,
                               const FilterSubject& subject) {
  if (!subject.uri.data()) return kNoMapping;
  const propertyTable* mappings = table->mappings;
  for (std::int32_t i = 0; i < mappings->count; ++i)
    if (mappingMatches(req, mappings->entries[i].key, subject)) return i;
  return kNoMapping;
}

// The subject's views point at the request's texts, at `stripped` and at `host`;
// the last two may be null.
static FilterSubject makeSubject(const vesk_request* req, const char* path,
                                 const char* stripped, const char* host) {
  FilterSubject subject{};
  if (req->uri) subject.uri = req->uri;
  subject.strippedPath = stripped ? stripped : path;
  subject.hadParameters = std::strchr(path, ';') != nullptr;
  subject.hasHost = host != nullptr;
  if (host) subject.host = host;
  return subject;
}

static std::int32_t filterLocked(mappingsTable* table, vesk_request* req,
                                 FilterSubject* subject,
                                 std::uint32_t honourIgnoreSuffix) {
  table->tableUse = kTableServing;
  subject->ignoreSuffix = honourIgnoreSuffix != 0 && table->ignoreSuffix != 0;
  req->trace(req, "filtering %.200s (%.200s) HOST=%s", req->uri ? req->uri : "null",
             subject->strippedPath.data(),
             subject->hasHost ? subject->host.data() : "null");
  refreshServers(table, req);
  return firstMatch(table, req, *subject);
}

std::int32_t filterRequest(mappingsTable* table, vesk_request* req,
                           std::uint32_t honourIgnoreSuffix) {
  const char* path = req->path ? req->path : req->uri;
  if (!path) path = "";
  const RequestBlock stripped{req, removePathParms(req, path)};
  const char* host = req->getHeader(req, "HOST");
  FilterSubject subject = makeSubject(req, path, stripped.bytes, host);
  std::int32_t index = kNoMapping;
  {
    const SyncGuard guard(req, &table->tableMutex, &table->tableMutexHeld);
    index = filterLocked(table, req, &subject, honourIgnoreSuffix);
  }
  if (host) req->freeHeader(req, host);
  if (index < 0) req->trace(req, "filterRequest:   no match");
  return index;
}

std::uint32_t ignoreSuffixMap(mappingsTable* table, vesk_request* req,
                              std::uint32_t value) {
  const SyncGuard guard(req, &table->tableMutex, &table->tableMutexHeld);
  const std::uint32_t old = table->ignoreSuffix;
  table->ignoreSuffix = value;
  return old;
}
