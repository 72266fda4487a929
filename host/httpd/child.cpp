#include "httpd/child.h"

#include <httpd.h>

#include <apr_strings.h>
#include <http_config.h>
#include <http_core.h>
#include <http_log.h>
#include <mpm_common.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <string>

#include "httpd/config.h"
#include "httpd/log.h"
#include "httpd/mod_nsapi.h"
#include "httpd/shared_memory.h"
#include "layer/process_settings.h"
#include "layer/restart_callbacks.h"

APLOG_USE_MODULE(nsapi);

namespace host {

static std::atomic<int> runningStages{0};

// Whose error log takes the lines that belong to no request.
static std::atomic<server_rec*> logServer{nullptr};

RunningStage::RunningStage(HostRequest* request) : running_(request) {
  ++runningStages;
}

RunningStage::~RunningStage() {
  --runningStages;
}

static void logOutsideRequest(int degree, const char* function, const char* message) {
  logLine(logServer.load(), degree, function, message);
}

// The functions of a server's lines see its name and port.
static void actFor(server_rec* server) {
  logServer = server;
  conf_global_vars_s* settings = processSettings();
  settings->Vport = server->port;
  if (server->server_hostname) settings->Vserver_hostname = server->server_hostname;
}

// The pool of a child goes when its worker threads have been joined. A request
// can still run where another module's threads serve it, or where the signal
// that ends a process interrupts it; it must find all as it was.
static apr_status_t endChild(void*) {
  if (runningStages > 0) {
    logOutsideRequest(LOG_WARN, "mod_nsapi",
                      "a request is still running: the restart callbacks are left out");
    return APR_SUCCESS;
  }
  runRestartCallbacks();
  return APR_SUCCESS;
}

static void runInitsOf(server_rec* server) {
  ServerConfig* config = configOf(server);
  if (!config || !config->inits) return;
  actFor(server);
  std::string reason = config->inits->runInits(sharedMemory());
  if (reason.empty()) return;
  ap_log_error(APLOG_MARK, APLOG_EMERG, 0, server, "%s", reason.c_str());
  std::exit(APEXIT_CHILDFATAL);
}

}  // namespace host

void nsapiStartChild(apr_pool_t* pool, server_rec* main) try {
  host::setServerVersion(apr_pstrdup(pool, ap_get_server_banner()));
  host::setProcessLog(host::logOutsideRequest);
  apr_pool_cleanup_register(pool, nullptr, host::endChild, apr_pool_cleanup_null);
  host::actFor(main);
  host::runInitsOf(main);
  // A virtual host without any line of the module's shares the main server's
  // settings.
  for (server_rec* server = main->next; server; server = server->next) {
    if (host::configOf(server) != host::configOf(main)) host::runInitsOf(server);
  }
  host::actFor(main);
} catch (const std::exception& error) {
  ap_log_error(APLOG_MARK, APLOG_EMERG, 0, main, "NSAPIInit: %s", error.what());
  std::exit(APEXIT_CHILDFATAL);
}
