#include "maptable/maintenance.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>

#include "context/events.h"
#include "context/memory.h"
#include "maptable/cluster_update.h"
#include "maptable/maintenance_queue.h"
#include "maptable/table_guard.h"
#include "maptable/table_refresh.h"
#include "maptable/table_startup.h"

constexpr std::int32_t kMillisPerSecond = 1000;

// How long the thread sleeps when nobody wakes it: the timers count in seconds.
constexpr std::int32_t kRound = 1000;
// While the table isn't filled nothing is due, and only a request should bring the next
// attempt forward.
constexpr std::int32_t kFillRound = 10000;

struct maintenanceThread {
  mappingsTable* table;
  vesk_request request;  // its own: a record belongs to one thread
  pthread_t thread;
};

// A server that is stopped, not dead, takes pings for as long as it likes: each wait and
// each conversation gets an end that doesn't depend on them.
static void limitWaits(vesk_request* req) {
  const std::int32_t limit = veskMaintenanceTimeout * kMillisPerSecond;
  // The answer as a whole; the limits of the single waits below would add up.
  req->conversationLimit = limit;
  req->endsAtShutdown = 1;
  for (std::int32_t* wait : {&req->connectTimeout, &req->sendTimeout})
    *wait = *wait < 0 ? limit : std::min(*wait, limit);
  // A request's limit may be short, for pings lengthen it; here none does.
  req->recvTimeout = limit;
}

static void fillTable(mappingsTable* table, vesk_request* req) {
  if (!beginAttempt(table, req)) return;
  req->lastError = 0;
  (void)initTable(table, req);  // it has logged, and is tried again
  endAttempt(table, req);
}

// Every request that finds no server asks for this; once a second is enough for all.
static bool isRevivalDue(mappingsTable* table, vesk_request* req) {
  const std::int64_t now = req->now(req);
  if (now == table->queue->lastRevival) return false;
  table->queue->lastRevival = now;
  return true;
}

// A server whose list can't be had brings its number with every reply, too.
static bool isNewsDue(mappingsTable* table, vesk_request* req) {
  const std::int64_t now = req->now(req);
  if (now == table->queue->lastNews) return false;
  table->queue->lastNews = now;
  return true;
}

static bool anyInService(mappingsTable* table, vesk_request* req) {
  const TableGuard guard(table, req, 1);
  const proxyList& servers = table->masterList;
  return std::any_of(servers.active, servers.active + servers.count,
                     [](std::uint32_t active) { return active != 0; });
}

// Those that are known first. When none of them is left, the bootstrap server may know
// others that have taken their place, as it does for requests without this thread.
static void findServers(mappingsTable* table, vesk_request* req) {
  reviveServers(table, req, 1);
  if (table->bootstrapped != 0 || anyInService(table, req)) return;
  req->lastError = 0;
  (void)retrieveServersFromBootstrapServer(table, req, 1);  // asked again a second later
}

void maintainTable(mappingsTable* table, vesk_request* req, const MaintenanceWork& work) {
  if (eventsWait()) lookAtEvents(req);
  if (!isFilled(table)) return fillTable(table, req);
  // First what requests have asked for: it is what they will meet next.
  if (work.revive && isRevivalDue(table, req)) findServers(table, req);
  req->lastError = 0;
  if (work.newsFrom && isNewsDue(table, req))
    applyClusterNews(table, req, work.newsFrom, work.newsSequence, 1);
  refreshServers(table, req, 1);
}

// The first round comes before the first sleep: the table is filled when the web server
// has started, and not when the first request is already waiting.
static void* runMaintenance(void* argument) {
  auto* maintenance = static_cast<maintenanceThread*>(argument);
  mappingsTable* table = maintenance->table;
  MaintenanceWork work{};
  while (!work.stopping) {
    maintainTable(table, &maintenance->request, work);
    work = takeWork(table, isFilled(table) ? kRound : kFillRound);
  }
  return nullptr;
}

// Signals are the host's: they must not be delivered to a thread that it doesn't know.
static int createQuietly(pthread_t* thread, void* argument) {
  sigset_t all;
  sigset_t before;
  (void)sigfillset(&all);
  (void)pthread_sigmask(SIG_SETMASK, &all, &before);
  const int error = pthread_create(thread, nullptr, runMaintenance, argument);
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return error;
}

static maintenanceThread* newThread(mappingsTable* table, const vesk_request* model,
                                    vesk_request* req) {
  auto* made =
      static_cast<maintenanceThread*>(newPermBlock(req, sizeof(maintenanceThread)));
  if (!made) return nullptr;
  made->table = table;
  // A copy: the model is a local of the start-up thread.
  made->request = *model;
  limitWaits(&made->request);
  if (createQuietly(&made->thread, made) == 0) return made;
  req->permFree(req, made);
  return nullptr;
}

void startMaintenance(mappingsTable* table, const vesk_request* model) {
  // The model is shown to be untouched; making the queue writes lastError at most.
  vesk_request req = *model;
  if (openQueue(table, &req) == 0) {
    table->maintenance = newThread(table, model, &req);
    if (table->maintenance) return;
    closeQueue(table, &req);
  }
  req.log(&req, "guard stall: no thread could be started, requests ask the servers");
}

void stopMaintenance(mappingsTable* table, vesk_request* req) {
  maintenanceThread* maintenance = table->maintenance;
  if (!maintenance) return;
  askToStop(table);
  (void)pthread_join(maintenance->thread, nullptr);
  table->maintenance = nullptr;
  req->permFree(req, maintenance);
  closeQueue(table, req);
}
