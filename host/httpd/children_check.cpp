// What several child processes don't share is told before a server starts.
#include <httpd.h>

#include <ap_mpm.h>
#include <http_log.h>

#include "httpd/config.h"
#include "httpd/mod_nsapi.h"

APLOG_USE_MODULE(nsapi);

static bool anyInit(server_rec* server) {
  for (; server; server = server->next) {
    if (host::configOf(server)->inits) return true;
  }
  return false;
}

// A configuration without Init lines runs no plug-in that could mind.
int nsapiCheckChildren(apr_pool_t*, apr_pool_t*, apr_pool_t*, server_rec* main) {
  int most = 1;
  if (!anyInit(main)) return OK;
  if (ap_mpm_query(AP_MPMQ_MAX_DAEMONS, &most) != APR_SUCCESS || most <= 1) return OK;
  ap_log_error(APLOG_MARK, APLOG_WARNING, 0, main,
               "up to %d child processes at once: each has servers, connections and "
               "limits of its own; one with many threads is recommended",
               most);
  return OK;
}
