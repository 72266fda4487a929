#include "maptable/maintenance_queue.h"

#include <cerrno>
#include <ctime>

#include "context/held_requests.h"
#include "context/memory.h"
#include "context/mutex_guard.h"

// Between two attempts to fill the table: servers that are down aren't asked more often,
// however many requests come.
constexpr std::int64_t kAttemptPause = 1000;

// The waits count by the clock that nobody sets.
static void initCondition(pthread_cond_t* condition) {
  pthread_condattr_t attributes;
  (void)pthread_condattr_init(&attributes);
  (void)pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  (void)pthread_cond_init(condition, &attributes);
  (void)pthread_condattr_destroy(&attributes);
}

std::int32_t openQueue(mappingsTable* table, vesk_request* req) {
  auto* queue =
      static_cast<maintenanceQueue*>(newPermZeroed(req, sizeof(maintenanceQueue)));
  if (!queue) return -1;
  (void)pthread_mutex_init(&queue->mutex, nullptr);  // can't fail with these attributes
  initCondition(&queue->wake);
  initCondition(&queue->concluded);
  table->queue = queue;
  return 0;
}

// The thread has been joined, and no stage runs any more: nobody can wait here now.
void closeQueue(mappingsTable* table, vesk_request* req) {
  maintenanceQueue* queue = table->queue;
  if (!queue) return;
  table->queue = nullptr;
  (void)pthread_cond_destroy(&queue->concluded);
  (void)pthread_cond_destroy(&queue->wake);
  (void)pthread_mutex_destroy(&queue->mutex);
  req->permFree(req, queue);
}

// A moment and no duration: a wait that is interrupted goes on to the same end.
static timespec momentIn(std::int32_t millis) {
  constexpr long kNanosPerMilli = 1000000;
  constexpr long kNanosPerSecond = 1000000000;
  timespec moment;
  (void)clock_gettime(CLOCK_MONOTONIC, &moment);
  moment.tv_sec += millis / 1000;
  moment.tv_nsec += millis % 1000 * kNanosPerMilli;
  if (moment.tv_nsec >= kNanosPerSecond) {
    ++moment.tv_sec;
    moment.tv_nsec -= kNanosPerSecond;
  }
  return moment;
}

// REQUIRES: `mutex`.
static void wakeThread(maintenanceQueue* queue) {
  queue->woken = true;
  (void)pthread_cond_signal(&queue->wake);
}

// Whether waiting makes sense: an attempt runs, or would run now. REQUIRES: `mutex`.
static bool hasAttempt(const maintenanceQueue* queue, vesk_request* req) {
  return queue->attempting || req->ticks(req) >= queue->nextAttempt;
}

// All requests wait for the same attempt, and none for a second one: a site whose servers
// are down must not be slower for it than it has to be.
std::int32_t awaitTable(mappingsTable* table, vesk_request* req) {
  if (isFilled(table)) return 0;
  maintenanceQueue* queue = table->queue;
  const WaitingRequest waiting(req);
  // Taken before the mutex: the time that it costs to get that counts too.
  const timespec end = momentIn(kMostWait);
  const MutexGuard guard(&queue->mutex);
  if (!hasAttempt(queue, req)) return -1;
  wakeThread(queue);
  const std::int64_t before = queue->attempts;
  int waited = 0;
  // An attempt that began before this request counts as its own: it asks the same
  // servers.
  while (waited == 0 && queue->attempts == before && !isFilled(table) && !queue->stopping)
    waited = pthread_cond_timedwait(&queue->concluded, &queue->mutex, &end);
  return isFilled(table) ? 0 : -1;
}

// The newest number counts: an older one that waits here is out of date.
void leaveNews(mappingsTable* table, veskProxy* proxy, std::int32_t sequence) {
  const MutexGuard guard(&table->queue->mutex);
  table->queue->newsFrom = proxy;
  table->queue->newsSequence = sequence;
  wakeThread(table->queue);
}

void askForRevival(mappingsTable* table) {
  const MutexGuard guard(&table->queue->mutex);
  table->queue->revive = true;
  wakeThread(table->queue);
}

MaintenanceWork takeWork(mappingsTable* table, std::int32_t limit) {
  maintenanceQueue* queue = table->queue;
  const timespec end = momentIn(limit);
  const MutexGuard guard(&queue->mutex);
  // `woken` is kept in the queue, so that a wake while the thread works isn't lost.
  while (!queue->woken && !queue->stopping &&
         pthread_cond_timedwait(&queue->wake, &queue->mutex, &end) == 0) {
  }
  const MaintenanceWork work = {.stopping = queue->stopping,
                                .revive = queue->revive,
                                .newsFrom = queue->newsFrom,
                                .newsSequence = queue->newsSequence};
  queue->woken = false;
  queue->revive = false;
  // Taken out whole: what comes from here on is new, and wakes again.
  queue->newsFrom = nullptr;
  return work;
}

bool beginAttempt(mappingsTable* table, vesk_request* req) {
  const MutexGuard guard(&table->queue->mutex);
  table->queue->attempting = req->ticks(req) >= table->queue->nextAttempt;
  return table->queue->attempting;
}

void endAttempt(mappingsTable* table, vesk_request* req) {
  const MutexGuard guard(&table->queue->mutex);
  table->queue->attempting = false;
  table->queue->nextAttempt = req->ticks(req) + kAttemptPause;
  ++table->queue->attempts;
  (void)pthread_cond_broadcast(&table->queue->concluded);
}

void noteFilled(mappingsTable* table) {
  const MutexGuard guard(&table->queue->mutex);
  setFilled(table);
  (void)pthread_cond_broadcast(&table->queue->concluded);
}

// Those who wait for the table are let go as well: it won't be filled any more.
void askToStop(mappingsTable* table) {
  const MutexGuard guard(&table->queue->mutex);
  table->queue->stopping = true;
  wakeThread(table->queue);
  (void)pthread_cond_broadcast(&table->queue->concluded);
}
