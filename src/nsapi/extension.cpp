#include "nsapi/extension.h"

#include <atomic>

#include "context/events.h"
#include "context/guards.h"
#include "context/vesk_request.h"
#include "maptable/maintenance.h"
#include "maptable/table_lifecycle.h"
#include "nsapi/filter_stage.h"
#include "nsapi/host_locks.h"
#include "nsapi/host_log.h"
#include "nsapi/init_options.h"
#include "nsapi/nsapi_request.h"
#include "nsapi/service_stage.h"
#include "nsapi/status_stage.h"
#include "nsapi/version.h"
#include "proxy/counter_board.h"

mappingsTable* pMappingsTable = nullptr;

// Released and acquired: a stage that finds the table finds it as veskinit left it.
mappingsTable* getMappingsTable() {
  return std::atomic_ref(pMappingsTable).load(std::memory_order_acquire);
}

void setMappingsTable(mappingsTable* table) {
  std::atomic_ref(pMappingsTable).store(table, std::memory_order_release);
}

// Without memory for a table the pointer stays null: every request is then answered
// as without one, and the web server goes on with all else that it serves.
static void makeTable(const TableOptions* options) {
  mappingsTable* table = mappingsTableNew(&globalRequest, options->serverStore,
                                          options->bootstrap, options->retryInterval);
  setMappingsTable(table);
  if (table) (void)table->ignoreSuffixMap(table, &globalRequest, options->ignoreSuffix);
}

// The thread's record is one of start-up, with the lasting memory of that, but with the
// limits of a request: those of start-up are still zeroes.
static void startThread(mappingsTable* table) {
  if (!table || !guarded(&globalRequest, Guard::stall)) return;
  vesk_request model = globalRequest;
  model.connectTimeout = soTimeouts[0];
  model.sendTimeout = soTimeouts[1];
  model.recvTimeout = soTimeouts[2];
  startMaintenance(table, &model);
}

int veskinit(pblock* pb, Session* /*sn*/, Request* /*rq*/) {
  // A host that restarts within one process comes here again after veskend.
  setShuttingDown(false);
  installHostLocks();
  // The record's log operations are chosen when it is made, and its allocators too: the
  // trace options come before it, `apialloc` behind it, for what start-up takes must
  // outlive every request.
  readTraceOptions(pb);
  init_nsapi_request(&globalRequest, nullptr, nullptr, nullptr);
  setLogLevel(LOG_INFORM);
  globalRequest.log(&globalRequest, "%s %d.%d (Build %d) NSAPI Extension - %s %s", "Vesk",
                    kVersionMajor, kVersionMinor, kBuildNumber, __DATE__, __TIME__);

  // From here to LOG_WARN the lines report the options; all that follows is what an
  // operator should see at the level that web servers log by default.
  TableOptions options;
  readServiceOptions(pb, &options);
  setLogLevel(LOG_WARN);
  readGuardOptions(pb);
  readEventOption(pb);
  openBoard(&globalRequest, readSharedMemory(pb));
  makeTable(&options);
  readErrorUrl(pb);
  startThread(getMappingsTable());
  daemon_atrestart(veskend, nullptr);
  return REQ_PROCEED;
}

// A function of a stage that stands in Init: the host shows its administrator this.
static int refuseInit(pblock* pb) {
  (void)pblock_nvinsert("error", "veskfilter and veskservice have no place in Init", pb);
  return REQ_ABORTED;
}

int veskfilter(pblock* pb, Session* sn, Request* rq) {
  return rq ? runFilterStage(getMappingsTable(), pb, sn, rq) : refuseInit(pb);
}

int veskservice(pblock* pb, Session* sn, Request* rq) {
  if (!rq) return refuseInit(pb);
  return pblock_findval("report", pb) ? runStatusStage(getMappingsTable(), pb, sn, rq)
                                      : runServiceStage(getMappingsTable(), pb, sn, rq);
}

void veskend(void* /*data*/) {
  // First of all, for a thread that waits for a server holds up everything else.
  setShuttingDown(true);
  setLogLevel(LOG_INFORM);
  globalRequest.trace(&globalRequest, "Vesk connector exiting");
  // Taken from its place first: a stage that starts now finds no table.
  mappingsTable* table = getMappingsTable();
  setMappingsTable(nullptr);
  if (table) stopMaintenance(table, &globalRequest);
  mappingsTableDelete(table, &globalRequest);
  closeEvents(&globalRequest);
  closeBoard();
}
