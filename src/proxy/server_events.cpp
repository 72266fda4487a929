#include "proxy/server_events.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "context/events.h"
#include "properties/property_index.h"

// Servers in each state but new, for "2 of 3 left": of the process, which has one table.
static std::int32_t serversUp;
static std::int32_t serversDown;

static void count(std::int32_t state, std::int32_t more) {
  if (state == kServerUp)
    std::atomic_ref(serversUp).fetch_add(more, std::memory_order_relaxed);
  if (state == kServerDown)
    std::atomic_ref(serversDown).fetch_add(more, std::memory_order_relaxed);
}

static std::int32_t howMany(std::int32_t* servers) {
  return std::atomic_ref(*servers).load(std::memory_order_relaxed);
}

// One thread alone makes each step, and so tells of it. `since` follows a moment behind:
// who reads it then shows the step a state too long or too short.
static bool step(veskProxy* proxy, std::int32_t from, std::int32_t to) {
  if (!std::atomic_ref(proxy->history.state).compare_exchange_strong(from, to))
    return false;
  count(from, -1);
  count(to, 1);
  return true;
}

bool isServerDown(const veskProxy* proxy) {
  return std::atomic_ref(const_cast<veskProxy*>(proxy)->history.state)
             .load(std::memory_order_relaxed) == kServerDown;
}

// Sets a number and gives the old one.
static std::int64_t replace(std::int64_t* field, std::int64_t number) {
  return std::atomic_ref(*field).exchange(number, std::memory_order_relaxed);
}

static void beginLine(EventText* line, const veskProxy* proxy) {
  clearText(line);
  addText(line, "vesk server ");
  addPeerText(line, proxy->name);
}

// The counts are read behind the step, so that the server itself is not among those left;
// others may step at the same time.
static void reportDown(vesk_request* req, const veskProxy* proxy, const char* doing,
                       std::int64_t seconds) {
  const std::int32_t up = howMany(&serversUp);
  EventText line;
  beginLine(&line, proxy);
  addText(&line, " DOWN %s: ", doing);
  addError(&line, req->lastError);
  addText(&line, " (up ");
  addDuration(&line, seconds);
  addText(&line, ", %d of %d left)", up, up + howMany(&serversDown));
  reportEvent(req, EventKind::server, proxy->name, line);
}

// Whoever marks a server that is down already, as each of its failing requests does,
// finds the step made and tells nothing.
void serverWentDown(vesk_request* req, veskProxy* proxy, const char* doing) {
  if (!step(proxy, kServerUp, kServerDown)) return;
  serverHistory* history = &proxy->history;
  const std::int64_t now = req->now(req);
  const std::int64_t before = replace(&history->since, now);
  (void)replace(&history->moved, 0);
  (void)replace(&history->failed, 0);
  if (eventsOn()) reportDown(req, proxy, doing, now - before);
}

static void reportUp(vesk_request* req, veskProxy* proxy, std::int64_t seconds) {
  serverHistory* history = &proxy->history;
  EventText line;
  beginLine(&line, proxy);
  addText(&line, " UP after ");
  addDuration(&line, seconds);
  addText(&line, "; ");
  addCount(&line, std::atomic_ref(history->moved).load(std::memory_order_relaxed),
           "request");
  addText(&line, " moved, %lld failed",
          static_cast<long long>(
              std::atomic_ref(history->failed).load(std::memory_order_relaxed)));
  reportEvent(req, EventKind::server, proxy->name, line);
}

// Of two threads that bring it back one makes the step, and the other finds nothing to
// do. New and gone lead to the same: a server that returns to the list has no down time
// that anybody waited for.
bool serverCameUp(vesk_request* req, veskProxy* proxy) {
  const bool back = step(proxy, kServerDown, kServerUp);
  const bool joins = !back && (step(proxy, kServerNew, kServerUp) ||
                               step(proxy, kServerGone, kServerUp));
  if (!back && !joins) return false;
  const std::int64_t now = req->now(req);
  const std::int64_t before = replace(&proxy->history.since, now);
  if (back && eventsOn()) reportUp(req, proxy, now - before);
  return joins;
}

bool serverWasUnlisted(vesk_request* req, veskProxy* proxy) {
  const bool belonged =
      step(proxy, kServerUp, kServerGone) || step(proxy, kServerDown, kServerGone);
  if (belonged) (void)replace(&proxy->history.since, req->now(req));
  return belonged;
}

// Counted also while it is up: a request may end before the pool has judged. Going down
// sets the counts to 0.
void serverLostRequest(veskProxy* proxy, bool servedByAnother) {
  serverHistory* history = &proxy->history;
  std::atomic_ref(servedByAnother ? history->moved : history->failed)
      .fetch_add(1, std::memory_order_relaxed);
}

// Most refreshes bring what the one before has brought, in the same order.
static bool haveSameKeys(const propertyTable* one, const propertyTable* other) {
  const auto same = [](const property& a, const property& b) {
    return std::strcmp(a.key, b.key) == 0;
  };
  return one->count == other->count &&
         std::equal(one->entries, one->entries + one->count, other->entries, same);
}

// Adds a pattern as servers write it: the tables hold '/path*' for their '/path/*'.
static void addPattern(EventText* line, char sign, const char* pattern) {
  const auto prefix = static_cast<int>(std::strcspn(pattern, "*"));
  if (prefix == 0 || pattern[prefix] == '\0') return addItem(line, sign, pattern);
  // Twice of what is shown: a pattern that doesn't fit is cut there, with its mark.
  char written[2 * kPeerTextSize];
  (void)std::snprintf(written, sizeof written, "%.*s/%s", prefix, pattern,
                      pattern + prefix);
  addItem(line, sign, written);
}

// Adds the keys of one table that the other lacks.
static void addMissing(EventText* line, char sign, const propertyTable* of,
                       const propertyTable* in) {
  propertyIndex index;
  indexProperties(&index, in);
  for (std::int32_t i = 0; i < of->count; ++i)
    if (findIndexed(&index, of->entries[i].key) < 0)
      addPattern(line, sign, of->entries[i].key);
}

// An index costs 32 KiB of stack and a walk, so it is made only where something differs.
void addMappingChange(const propertyTable* old, const propertyTable* fresh,
                      EventText* line) {
  if (haveSameKeys(old, fresh)) return;
  addMissing(line, '+', fresh, old);
  addMissing(line, '-', old, fresh);
  endItems(line);
}

void describeMappings(const veskProxy* proxy, const propertyTable* old,
                      const propertyTable* fresh, EventText* line) {
  clearText(line);
  if (!old || !eventsOn()) return;
  addText(line, "vesk mappings of ");
  addPeerText(line, proxy->name);
  addText(line, ":");
  const std::int32_t head = line->length;
  addMappingChange(old, fresh, line);
  if (line->length == head) clearText(line);
}

void reportMappings(vesk_request* req, const veskProxy* proxy, const EventText& line) {
  if (line.length > 0) reportEvent(req, EventKind::mappings, proxy->name, line);
}
