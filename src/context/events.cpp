#include "context/events.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

#include "context/memory.h"
#include "context/mutex_guard.h"
#include "context/privacy.h"

constexpr std::int64_t kQuietMillis = 1000;  // between two lines about the same thing
constexpr std::int32_t kThings = 256;        // that may change within that time
constexpr std::int32_t kSubjectSize = 64;    // a longer subject counts by its begin
// Kept free behind a text for the count: " (2147483647 more in between)".
constexpr std::int32_t kCountReserve = 32;
constexpr std::int64_t kNeverDue = INT64_MAX;

// One thing that a line was written about.
struct EventThing {
  EventKind kind;
  char subject[kSubjectSize];
  bool used;
  std::int64_t toldAt;    // ticks of the last line
  std::int32_t replaced;  // texts that came since and were not written
  EventText held;         // the newest of them; empty: none waits
};

struct EventJournal {
  veskEvent lines[kJournalSize];  // a ring
  std::int64_t written;           // lines since the begin
  EventThing things[kThings];
  std::int32_t leftOut;  // texts that found no thing free
};

// Written under `mutex`, and read without it as well: atomically. An old value costs a
// look, or puts one off until the next request.
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static EventJournal* journal;
static std::int32_t waiting;              // reasons for a request to look
static std::int64_t nextDue = kNeverDue;  // in ticks: no text that is held is due before

bool eventsOn() {
  return std::atomic_ref(journal).load(std::memory_order_relaxed) != nullptr;
}

// Relaxed, as above: a line that is missed by one request is met by the next.
bool eventsWait() {
  return std::atomic_ref(waiting).load(std::memory_order_relaxed) != 0;
}

void countEventsWaiting(std::int32_t more) {
  std::atomic_ref(waiting).fetch_add(more, std::memory_order_relaxed);
}

// REQUIRES: mutex.
static void setJournal(EventJournal* fresh) {
  std::atomic_ref(journal).store(fresh, std::memory_order_relaxed);
  std::atomic_ref(nextDue).store(kNeverDue, std::memory_order_relaxed);
}

// Lets requests that come before then go by a look at the clock alone: while a server is
// gone, each of them would take the mutex otherwise. REQUIRES: mutex.
static void setDueBy(std::int64_t ticks) {
  const std::atomic_ref<std::int64_t> due(nextDue);
  if (ticks < due.load(std::memory_order_relaxed))
    due.store(ticks, std::memory_order_relaxed);
}

// A host that restarts within one process may come here twice. The memory is asked for
// before the mutex is taken: an allocator that fails writes a line.
void openEvents(vesk_request* req) {
  closeEvents(req);
  auto* fresh = static_cast<EventJournal*>(newPermZeroed(req, sizeof(EventJournal)));
  const MutexGuard guard(&mutex);
  setJournal(fresh);
}

static bool isAbout(const EventThing& thing, EventKind kind, const char* subject) {
  return thing.used && thing.kind == kind &&
         std::strncmp(thing.subject, subject, kSubjectSize - 1) == 0;
}

// What is quiet needn't be remembered: its next line may be written at once, as the first
// of a new thing.
static bool isQuiet(const EventThing& thing, std::int64_t ticks) {
  return !thing.used || (thing.held.length == 0 && ticks - thing.toldAt >= kQuietMillis);
}

// The thing of that name, else one that nothing is remembered of, else null.
// REQUIRES: mutex.
static EventThing* findThing(EventKind kind, const char* subject, std::int64_t ticks) {
  EventThing* const begin = std::begin(journal->things);
  EventThing* const end = std::end(journal->things);
  const auto same = [&](const EventThing& thing) {
    return isAbout(thing, kind, subject);
  };
  EventThing* found = std::find_if(begin, end, same);
  if (found != end) return found;
  found =
      std::find_if(begin, end, [&](const auto& each) { return isQuiet(each, ticks); });
  if (found == end) return nullptr;
  std::memset(found, 0, sizeof *found);
  found->kind = kind;
  std::memcpy(found->subject, subject, strnlen(subject, kSubjectSize - 1));
  found->used = true;
  found->toldAt = ticks - kQuietMillis;  // never: its first line needs no pause
  return found;
}

bool isHeldBack(vesk_request* req, EventKind kind, const char* subject) {
  const MutexGuard guard(&mutex);
  if (!journal) return false;
  const std::int64_t ticks = req->ticks(req);
  const EventThing* thing = findThing(kind, subject, ticks);
  return !thing || ticks - thing->toldAt < kQuietMillis;
}

// REQUIRES: mutex.
static void keep(const EventText& line, std::int64_t time) {
  veskEvent* slot = &journal->lines[journal->written++ % kJournalSize];
  slot->time = time;
  std::memcpy(slot->text, line.text, sizeof slot->text);
}

// Notes that `line` is being written now, and tells in it what it has replaced.
// REQUIRES: mutex.
static void concludeThing(vesk_request* req, EventThing* thing, EventText* line) {
  if (thing->held.length > 0) countEventsWaiting(-1);
  if (thing->replaced > 0) {
    line->length = std::min(line->length, kEventTextSize - kCountReserve);
    addText(line, " (%d more in between)", thing->replaced);
  }
  clearText(&thing->held);
  thing->replaced = 0;
  thing->toldAt = req->ticks(req);
  keep(*line, req->now(req));
}

// The newest replaces the one that waits. REQUIRES: mutex.
static void hold(EventThing* thing, const EventText& line) {
  if (thing->held.length > 0) ++thing->replaced;
  if (thing->held.length == 0) countEventsWaiting(1);
  thing->held = line;
  setDueBy(thing->toldAt + kQuietMillis);
}

// A look is asked for, or the count would wait for a line of another kind to be held.
// REQUIRES: mutex.
static void leaveOut(std::int64_t ticks) {
  if (journal->leftOut++ == 0) countEventsWaiting(1);
  setDueBy(ticks + kQuietMillis);
}

// Whether `line`, with what is added to it here, is to be written now. REQUIRES: mutex.
static bool admitLine(vesk_request* req, EventKind kind, const char* subject,
                      EventText* line) {
  if (!journal) return false;
  const std::int64_t ticks = req->ticks(req);
  EventThing* thing = findThing(kind, subject, ticks);
  if (!thing) {
    leaveOut(ticks);
    return false;
  }
  if (ticks - thing->toldAt < kQuietMillis) {
    hold(thing, *line);
    return false;
  }
  if (thing->held.length > 0) ++thing->replaced;
  concludeThing(req, thing, line);
  return true;
}

void reportEvent(vesk_request* req, EventKind kind, const char* subject,
                 const EventText& line) {
  EventText shown = line;
  // Here, where all lines pass, and before anything is added: the journal is shown to
  // people, so no guard is asked.
  hideSessionIds(shown.text);
  shown.length = static_cast<std::int32_t>(std::strlen(shown.text));
  bool now = false;
  {
    const MutexGuard guard(&mutex);
    now = admitLine(req, kind, subject, &shown);
  }
  // Behind the mutex: a line may wait for a disk.
  if (now) req->log(req, "%s", shown.text);
}

// Takes one line whose time has come; false when there is none, and then the time of the
// next is known. REQUIRES: mutex.
static bool takeDue(vesk_request* req, std::int64_t ticks, EventText* line) {
  std::int64_t next = kNeverDue;
  for (EventThing& thing : journal->things) {
    if (thing.held.length == 0) continue;
    if (ticks - thing.toldAt >= kQuietMillis) {
      *line = thing.held;
      concludeThing(req, &thing, line);
      return true;
    }
    next = std::min(next, thing.toldAt + kQuietMillis);
  }
  std::atomic_ref(nextDue).store(next, std::memory_order_relaxed);
  return false;
}

// Tells of the texts that found no thing free, once one is. REQUIRES: mutex.
static bool takeLeftOut(vesk_request* req, EventText* line) {
  if (journal->leftOut == 0) return false;
  clearText(line);
  addText(line, "vesk events: ");
  addCount(line, journal->leftOut, "line");
  addText(line, " left out");
  journal->leftOut = 0;
  countEventsWaiting(-1);
  return admitLine(req, EventKind::leftOut, "", line);
}

static bool takeLine(vesk_request* req, std::int64_t ticks, EventText* line) {
  const MutexGuard guard(&mutex);
  return journal && (takeDue(req, ticks, line) || takeLeftOut(req, line));
}

// By the clock of its begin, so that it ends.
static void writeDue(vesk_request* req, std::int64_t ticks) {
  for (EventText line; takeLine(req, ticks, &line);) req->log(req, "%s", line.text);
}

void lookAtEvents(vesk_request* req) {
  const std::int64_t ticks = req->ticks(req);
  if (ticks < std::atomic_ref(nextDue).load(std::memory_order_relaxed)) return;
  writeDue(req, ticks);
}

// Counts out what could not be written: another journal may be opened. REQUIRES: mutex.
static void dropHeld() {
  for (const EventThing& thing : journal->things)
    if (thing.held.length > 0) countEventsWaiting(-1);
  if (journal->leftOut > 0) countEventsWaiting(-1);
}

// With a clock that is past every pause, what is held comes out whatever its time.
void closeEvents(vesk_request* req) {
  if (eventsOn()) writeDue(req, req->ticks(req) + kQuietMillis);
  EventJournal* old = nullptr;
  {
    const MutexGuard guard(&mutex);
    old = journal;
    if (old) dropHeld();
    setJournal(nullptr);
  }
  freePerm(req, old);
}

// Under the mutex as a whole: a ring that moves meanwhile would give a line twice, or
// none.
std::int32_t copyEvents(veskEvent* events, std::int32_t room) {
  const MutexGuard guard(&mutex);
  if (!journal) return 0;
  const std::int64_t kept = std::min<std::int64_t>(journal->written, kJournalSize);
  const std::int64_t count = std::min<std::int64_t>(kept, room);
  for (std::int64_t i = 0; i < count; ++i)
    events[i] = journal->lines[(journal->written - count + i) % kJournalSize];
  return static_cast<std::int32_t>(count);
}
