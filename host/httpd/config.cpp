#include "httpd/config.h"

#include <http_config.h>

#include "httpd/mod_nsapi.h"

namespace host {

ServerConfig* configOf(server_rec* server) {
  return static_cast<ServerConfig*>(
      ap_get_module_config(server->module_config, &nsapi_module));
}

// Either may be null.
static apr_array_header_t* joined(apr_pool_t* pool, apr_array_header_t* first,
                                  apr_array_header_t* second) {
  if (!first || !second) return first ? first : second;
  return apr_array_append(pool, first, second);
}

}  // namespace host

using host::ServerConfig;

// A virtual host's Init lines are its own: the main server's have run for the
// whole process, and would run twice.
void* nsapiMergeServers(apr_pool_t* pool, void* base, void* own) {
  void* memory = apr_palloc(pool, sizeof(ServerConfig));
  auto* merged = static_cast<ServerConfig*>(memory);
  *merged = *static_cast<const ServerConfig*>(own);
  const auto* main = static_cast<const ServerConfig*>(base);
  if (!merged->own) merged->stages = main->stages;
  if (!merged->clientNamesSet) merged->clientNames = main->clientNames;
  if (!merged->front) merged->front = main->front;
  merged->envVars = host::joined(pool, main->envVars, merged->envVars);
  if (!merged->servletPathsSet) merged->servletPaths = main->servletPaths;
  return merged;
}

const char* nsapiClientNames(cmd_parms* cmd, void*, int on) {
  ServerConfig* config = host::configOf(cmd->server);
  config->clientNames = on != 0;
  config->clientNamesSet = true;
  return nullptr;
}

const char* nsapiEnvVar(cmd_parms* cmd, void*, const char* name) {
  ServerConfig* config = host::configOf(cmd->server);
  if (!config->envVars) config->envVars = apr_array_make(cmd->pool, 4, sizeof(char*));
  APR_ARRAY_PUSH(config->envVars, const char*) = name;
  return nullptr;
}
