#include "maptable/table_events.h"

#include <algorithm>

#include "context/events.h"
#include "context/vesk_error.h"
#include "maptable/table_guard.h"
#include "proxy/server_events.h"

static void note(mappingsTable* table, vesk_request* req, char sign,
                 const veskProxy* proxy, std::uint32_t lock) {
  if (!eventsOn()) return;
  const TableGuard guard(table, req, lock);
  addItem(&table->news.items, sign, proxy->name);
}

void noteJoined(mappingsTable* table, vesk_request* req, const veskProxy* proxy,
                std::uint32_t lock) {
  note(table, req, '+', proxy, lock);
}

void noteLeft(mappingsTable* table, vesk_request* req, const veskProxy* proxy,
              std::uint32_t lock) {
  note(table, req, '-', proxy, lock);
}

// Another number without another server is told as well: somebody has changed the list,
// and looks here for what came of it.
static bool hasNews(const clusterNews& news) {
  return news.items.length > 0 || news.sequence != news.toldSequence;
}

// REQUIRES: tableMutex.
static void takeNews(clusterNews* news, EventText* line) {
  endItems(&news->items);
  clearText(line);
  addText(line, "vesk cluster %lld -> %lld:%s",
          static_cast<long long>(news->toldSequence),
          static_cast<long long>(news->sequence),
          news->items.length > 0 ? news->items.text : " the same servers");
  clearText(&news->items);
  news->toldSequence = news->sequence;
}

// Two lists within a second make one line: a line that is replaced would take the names
// of servers with it. A list that couldn't be applied whole comes again with every reply;
// its number is told once.
void reportClusterNews(mappingsTable* table, vesk_request* req, std::int64_t sequence,
                       std::uint32_t lock) {
  if (!eventsOn()) return;
  EventText line;
  {
    const TableGuard guard(table, req, lock);
    clusterNews* news = &table->news;
    if (sequence > 0) news->sequence = sequence;
    if (!hasNews(*news) || isHeldBack(req, EventKind::cluster, "")) return;
    takeNews(news, &line);
  }
  reportEvent(req, EventKind::cluster, "", line);
}

// Most requests fail once or not at all; a place for each of 128 servers would have to
// lie on the stack of every request.
void noteFailedAttempt(failedAttempts* attempts, veskProxy* proxy, std::int32_t error) {
  const std::int32_t at = attempts->count++;
  if (at >= kNotedAttempts) return;
  attempts->proxies[at] = proxy;
  attempts->errors[at] = error;
}

static std::int32_t countNoted(const failedAttempts& attempts) {
  return std::min(attempts.count, kNotedAttempts);
}

// What a browser or a server has sent, in lines of 400 bytes: four servers with the
// longest names don't fit, and are cut at the end.
void describeFailedRequest(const vesk_request* req, const failedAttempts& attempts,
                           EventText* line) {
  clearText(line);
  addText(line, "vesk request ");
  addPeerText(line, req->method);
  addText(line, " ");
  addPath(line, req->uri);
  addText(line, " failed: ");
  addCount(line, attempts.count, "attempt");
  for (std::int32_t i = 0; i < countNoted(attempts); ++i) {
    addText(line, ", ");
    addPeerText(line, attempts.proxies[i]->name);
    addText(line, " ");
    addError(line, attempts.errors[i]);
  }
  if (attempts.count > kNotedAttempts)
    addText(line, " and %d more", attempts.count - kNotedAttempts);
  if (attempts.nobodyLeft) addText(line, ", no server left");
}

// The last server that was asked stands for the trouble: were it the URI, a crowd of them
// could fill the log.
static const char* subjectOf(const failedAttempts& attempts) {
  const std::int32_t noted = countNoted(attempts);
  return noted > 0 ? attempts.proxies[noted - 1]->name : "";
}

// Once for each server, however often it was tried.
static void countForServers(const failedAttempts& attempts, bool served) {
  veskProxy* const* const first = attempts.proxies;
  for (std::int32_t i = 0; i < countNoted(attempts); ++i)
    if (std::find(first, first + i, first[i]) == first + i)
      serverLostRequest(first[i], served);
}

// A request that is served at the first attempt, as nearly all are, has nothing noted and
// gets away with a few comparisons.
void concludeAttempts(vesk_request* req, const failedAttempts& attempts,
                      std::int32_t result) {
  const bool failed = result == kRequestFailed && req->lastError != EVESK_CLIENT_DOWN;
  if (failed || result == kRequestServed)
    countForServers(attempts, result == kRequestServed);
  if (!failed || !eventsOn()) return;
  EventText line;
  describeFailedRequest(req, attempts, &line);
  reportEvent(req, EventKind::request, subjectOf(attempts), line);
}
