/* The module's record: its directives and its hooks. */
#include "mod_nsapi.h"

#include <http_protocol.h>
#include <http_request.h>

static const command_rec directives[] = {
    AP_INIT_RAW_ARGS("NSAPIInit", nsapiInit, NULL, RSRC_CONF,
                     "fn=\"NAME\" key=\"value\"...: runs once in each child process; "
                     "fn=\"load-modules\" loads a plug-in"),
    AP_INIT_RAW_ARGS("NSAPINameTrans", nsapiNameTrans, NULL, RSRC_CONF,
                     "fn=\"NAME\" key=\"value\"...: finds the path of a request"),
    AP_INIT_RAW_ARGS("NSAPIObjectType", nsapiObjectType, NULL, RSRC_CONF | ACCESS_CONF,
                     "fn=\"NAME\" key=\"value\"...: finds the type of a request"),
    AP_INIT_RAW_ARGS("NSAPIService", nsapiService, NULL, RSRC_CONF | ACCESS_CONF,
                     "fn=\"NAME\" type=\"PATTERN\" method=\"PATTERN\" key=\"value\"...: "
                     "answers requests of that type and method"),
    AP_INIT_FLAG("NSAPIClientNames", nsapiClientNames, NULL, RSRC_CONF,
                 "On lets headers through whose names mean the web server's own words, "
                 "such as Auth-User; Off, the default, leaves them out"),
    AP_INIT_RAW_ARGS(
        "NSAPITLSFront", nsapiTlsFront, NULL, RSRC_CONF,
        "from=\"ADDRESSES\" https=\"HEADER\" cipher=\"HEADER\"...: what ends "
        "TLS before httpd, and the headers in which it tells of that"),
    AP_INIT_ITERATE("NSAPIEnvVar", nsapiEnvVar, NULL, RSRC_CONF,
                    "NAME...: environment variables that go to the server as attributes "
                    "of the request"),
    AP_INIT_TAKE1("NSAPIMapping", nsapiMapping, NULL, RSRC_CONF,
                  "servlet has httpd judge a path without its parameters, which the "
                  "plug-in still gets; plain is the default"),
    AP_INIT_FLAG("NSAPIEngine", nsapiEngine, NULL, RSRC_CONF | ACCESS_CONF,
                 "Off has the plug-ins leave what lies here to httpd; On is the default"),
    AP_INIT_FLAG("NSAPIFiles", nsapiFiles, NULL, RSRC_CONF | ACCESS_CONF,
                 "Off says that no URI here names a file, so that httpd looks for none "
                 "and <Location> alone protects; On is the default"),
    AP_INIT_TAKE_ARGV("NSAPIErrorOverride", nsapiErrorOverride, NULL,
                      RSRC_CONF | ACCESS_CONF,
                      "On, and statuses or none for all: ErrorDocument stands in place "
                      "of a server's error page; Off is the default"),
    {NULL, {NULL}, NULL, 0, RAW_ARGS, NULL}};

/* How many children there can be is known once the MPM has checked its lines.
 *
 * A proxy passes
 * the ';': both come first.
 *
 * An index file is looked for by mod_dir, whose fixups run among the last. What sends
 * files are the handlers of mod_file_cache and, as the last of all, of the core. */
static void registerHooks(apr_pool_t* pool) {
  static const char* const translators[] = {"mod_proxy.c", "mod_rewrite.c", NULL};
  static const char* const programs[] = {"mod_actions.c", NULL};
  static const char* const files[] = {"mod_file_cache.c", NULL};
  (void)pool;
  ap_hook_check_config(nsapiCheckConfiguration, NULL, NULL, APR_HOOK_LAST);
  ap_hook_post_config(nsapiShareMemory, NULL, NULL, APR_HOOK_MIDDLE);
  ap_hook_child_init(nsapiStartChild, NULL, NULL, APR_HOOK_MIDDLE);
  ap_hook_translate_name(nsapiDropParameters, translators, NULL, APR_HOOK_FIRST);
  ap_hook_translate_name(nsapiTranslate, NULL, NULL, APR_HOOK_LAST);
  ap_hook_map_to_storage(nsapiEndTranslation, NULL, NULL, APR_HOOK_REALLY_FIRST);
  ap_hook_map_to_storage(nsapiSkipWalk, NULL, NULL, APR_HOOK_LAST);
  ap_hook_fixups(nsapiType, NULL, NULL, APR_HOOK_MIDDLE);
  ap_hook_fixups(nsapiTypeFolder, NULL, NULL, APR_HOOK_REALLY_LAST);
  ap_hook_handler(nsapiServe, NULL, NULL, APR_HOOK_FIRST);
  ap_hook_handler(nsapiHideSource, programs, files, APR_HOOK_LAST);
}

module AP_MODULE_DECLARE_DATA nsapi_module = {
    STANDARD20_MODULE_STUFF, nsapiCreatePlace, nsapiMergePlaces, nsapiCreateServer,
    nsapiMergeServers,       directives,       registerHooks,    0};
