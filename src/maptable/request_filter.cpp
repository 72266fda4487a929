#include "maptable/request_filter.h"

#include <cstring>

#include "context/memory.h"
#include "context/request_block.h"
#include "context/request_setup.h"
#include "context/text.h"
#include "context/vesk_mutex.h"
#include "maptable/request_lock.h"
#include "maptable/table_refresh.h"

constexpr std::int32_t kNoMapping = -1;

// No text is made where there is nothing to remove: most paths have no parameter.
char* removePathParms(vesk_request* req, const char* text) {
  const char* semicolon = std::strchr(text, ';');
  if (!semicolon) return nullptr;
  return copyText(req, {text, static_cast<std::size_t>(semicolon - text)});
}

// The texts are what an operator compares with the server's list of mappings, so they
// show the pattern in the form that the table holds.
static void traceFinding(vesk_request* req, const uriPattern& pattern,
                         PatternMatch match) {
  switch (match) {
    case PatternMatch::matched:
      req->trace(req, "filterRequest:   matched %s", pattern.text);
      break;
    case PatternMatch::suffixIgnored:
      req->trace(req, "filtering ignored suffix: %s", pattern.text + pattern.pathStart);
      break;
    case PatternMatch::parametersIgnored:
      req->trace(req, "filterRequest: ignoring extension match after \";\"");
      break;
    default:
      break;
  }
}

// A pattern that is passed over doesn't end the walk: a less specific one may fit.
// REQUIRES: tableMutex.
static std::int32_t firstMatch(const mappingsTable* table, vesk_request* req,
                               const MatchSubject& subject) {
  // An empty URI may match "*"; one that is missing belongs to nobody.
  if (!subject.uri.data()) return kNoMapping;
  const std::span patterns(table->patterns,
                           static_cast<std::size_t>(table->mappings->count));
  for (std::int32_t from = 0; from < table->mappings->count;) {
    const PatternFinding found = nextFinding(patterns, from, subject);
    if (found.index == table->mappings->count) break;
    traceFinding(req, table->patterns[found.index], found.match);
    if (found.match == PatternMatch::matched) return found.index;
    from = found.index + 1;
  }
  return kNoMapping;
}

const char* pathOf(const vesk_request* req) {
  return orElse(req->path ? req->path : req->uri, "");
}

// A path whose copy found no memory counts with its parameters: that may miss a suffix,
// and declines a request rather than misroute it.
MatchSubject makeSubject(const vesk_request* req, const char* stripped,
                         const char* host) {
  const char* path = pathOf(req);
  MatchSubject subject{};
  if (req->uri) subject.uri = req->uri;
  subject.strippedPath = stripped ? stripped : path;
  // Asked of the path as it came: the stripped one has lost the answer.
  subject.hadParameters = std::strchr(path, ';') != nullptr;
  subject.hasHost = host != nullptr;
  if (host) subject.host = host;
  return subject;
}

// The refresh comes first, and its changes count for this request already: a server that
// has just come back may be the one that it needs. REQUIRES: tableMutex.
static std::int32_t filterLocked(mappingsTable* table, vesk_request* req,
                                 MatchSubject* subject,
                                 std::uint32_t honourIgnoreSuffix) {
  // From the first filter on, a server that joins no longer sets the rules of balancing.
  table->tableUse = kTableServing;
  subject->ignoreSuffix = honourIgnoreSuffix != 0 && table->ignoreSuffix != 0;
  req->trace(req, "filtering %.200s (%.200s) HOST=%s", orElse(req->uri, "null"),
             subject->strippedPath.data(),
             subject->hasHost ? subject->host.data() : "null");
  if (!table->queue) refreshServers(table, req, 0);  // else a thread does it
  return firstMatch(table, req, *subject);
}

// A request to be matched, with what of it is the web server's.
struct FilterQuestion {
  const char* stripped;  // null: the path has no parameters
  const char* host;
  bool hostKnown;  // `host` has been asked for, and is null only where there is none
  std::uint32_t honourIgnoreSuffix;
};

// False when a mapping is for one host, and the request's isn't known: those mappings
// come first in matching order.
static bool tryFilter(mappingsTable* table, vesk_request* req,
                      const FilterQuestion& question, std::int32_t* index) {
  MatchSubject subject = makeSubject(req, question.stripped, question.host);
  const RequestLock lock(table, req);
  const bool hosts = table->mappings->count > 0 && table->patterns[0].hasHost != 0;
  if (hosts && !question.hostKnown) return false;
  *index = filterLocked(table, req, &subject, question.honourIgnoreSuffix);
  return true;
}

// Without the lock: the host may take its time over a header. That takes longer than to
// match a dozen mappings, so nobody asks who needs no answer.
static void fetchHost(vesk_request* req, FilterQuestion* question) {
  question->host = req->getHeader(req, "HOST");
  question->hostKnown = true;
}

std::int32_t filterRequest(mappingsTable* table, vesk_request* req,
                           std::uint32_t honourIgnoreSuffix) {
  const RequestBlock stripped{req, removePathParms(req, pathOf(req))};
  FilterQuestion question = {stripped.bytes, nullptr, false, honourIgnoreSuffix};
  // A refresh within, which only a table without a thread makes, may bring the first
  // mapping that is for one host.
  if (isTraced(req) || !table->queue) fetchHost(req, &question);
  std::int32_t index = kNoMapping;
  if (!tryFilter(table, req, question, &index)) {
    fetchHost(req, &question);
    (void)tryFilter(table, req, question, &index);
  }
  if (question.host) req->freeHeader(req, question.host);
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
