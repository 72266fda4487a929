// The entry points that a web server calls: nothing else leaves the shared object.
//
// A host is C and may be any web server, so nothing is thrown out of these.

#include <nsapi.h>

#include "context/vesk_request.h"
#include "maptable/vesk_maptable_impl.h"
#include "nsapi/filter_stage.h"
#include "nsapi/host_log.h"
#include "nsapi/init_options.h"
#include "nsapi/interface.h"
#include "nsapi/service_stage.h"

#define VESK_ENTRY extern "C" [[gnu::visibility("default")]]

constexpr int kVersionMajor = 4;
constexpr int kVersionMinor = 0;
constexpr int kBuildNumber = 108785;

VESK_ENTRY int veskinit(pblock* pb, Session* sn, Request* rq);
VESK_ENTRY int veskfilter(pblock* pb, Session* sn, Request* rq);
VESK_ENTRY int veskservice(pblock* pb, Session* sn, Request* rq);
VESK_ENTRY void veskend(void* data);

static void makeTable(const TableOptions* options) {
  mappingsTable* table = mappingsTableNew(&globalRequest, options->serverStore,
                                          options->bootstrap, options->retryInterval);
  setMappingsTable(table);
  if (table) (void)table->ignoreSuffixMap(table, &globalRequest, options->ignoreSuffix);
}

int veskinit(pblock* pb, Session* /*sn*/, Request* /*rq*/) {
  // A host that restarts within one process comes here again after veskend.
  setShuttingDown(false);
  installHostLocks();
  readTraceOptions(pb);
  init_nsapi_request(&globalRequest, nullptr, nullptr, nullptr);
  setLogLevel(LOG_INFORM);
  globalRequest.log(&globalRequest, "%s %d.%d (Build %d) NSAPI Extension - %s %s", "Vesk",
                    kVersionMajor, kVersionMinor, kBuildNumber, __DATE__, __TIME__);

  TableOptions options;
  readServiceOptions(pb, &options);
  setLogLevel(LOG_WARN);
  makeTable(&options);
  readErrorUrl(pb);
  daemon_atrestart(veskend, nullptr);
  return REQ_PROCEED;
}

// A function of a stage that stands in Init: the host shows its administrator this.
static int refuseInit(pblock* pb) {
  (void)pblock_nvinsert("error", "veskfilter and veskservice have no place in Init", pb);
  return REQ_ABORTED;
}

int veskfilter(pblock* pb, Session* sn, Request* rq) {
  return rq ? runFilterStage(pb, sn, rq) : refuseInit(pb);
}

int veskservice(pblock* pb, Session* sn, Request* rq) {
  return rq ? runServiceStage(pb, sn, rq) : refuseInit(pb);
}

void veskend(void* /*data*/) {
  setShuttingDown(true);
  setLogLevel(LOG_INFORM);
  globalRequest.trace(&globalRequest, "Vesk connector exiting");
  // Taken from its place first: a stage that starts now finds no table.
  mappingsTable* table = getMappingsTable();
  setMappingsTable(nullptr);
  mappingsTableDelete(table, &globalRequest);
}
