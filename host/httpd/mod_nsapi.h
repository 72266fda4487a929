/*
 * The functions that httpd calls: mod_nsapi.c names them in the module's record.
 *
 * Ownership: records belong to the pools that httpd hands in. Threads: the
 * directive functions run on the one thread that reads the configuration, the
 * hooks of a request on the thread that runs it. Errors: a directive gives the
 * reason or null, a hook a status of httpd; no exception leaves a function.
 */
#pragma once

#include <httpd.h>

#include <http_config.h>

#ifdef __cplusplus
extern "C" {
#endif

extern module AP_MODULE_DECLARE_DATA nsapi_module;

/* The settings of a server or virtual host, and how they follow from each
 * other: a virtual host with stage directives of its own runs only those. */
void* nsapiCreateServer(apr_pool_t* pool, server_rec* server);
void* nsapiMergeServers(apr_pool_t* pool, void* base, void* own);

/* NSAPIInit, NSAPINameTrans. */
const char* nsapiInit(cmd_parms* cmd, void* unused, const char* text);
const char* nsapiNameTrans(cmd_parms* cmd, void* unused, const char* text);

/* NSAPIClientNames, NSAPIMapping. */
const char* nsapiClientNames(cmd_parms* cmd, void* unused, int on);
const char* nsapiMapping(cmd_parms* cmd, void* unused, const char* mapping);

/* NSAPITLSFront, NSAPIEnvVar. */
const char* nsapiTlsFront(cmd_parms* cmd, void* unused, const char* text);
const char* nsapiEnvVar(cmd_parms* cmd, void* unused, const char* name);

/* NSAPIObjectType, NSAPIService, NSAPIEngine, NSAPIFiles, NSAPIErrorOverride: of the
 * server, or of a place in it. */
void* nsapiCreatePlace(apr_pool_t* pool, char* folder);
void* nsapiMergePlaces(apr_pool_t* pool, void* outer, void* own);
const char* nsapiObjectType(cmd_parms* cmd, void* place, const char* text);
const char* nsapiService(cmd_parms* cmd, void* place, const char* text);
const char* nsapiEngine(cmd_parms* cmd, void* place, int on);
const char* nsapiFiles(cmd_parms* cmd, void* place, int on);
const char* nsapiErrorOverride(cmd_parms* cmd, void* place, int count,
                               char* const words[]);

/* Warns of several child processes, which a plug-in's picture of its servers and its
 * limits aren't common to. */
int nsapiCheckConfiguration(apr_pool_t* config, apr_pool_t* log, apr_pool_t* temporary,
                            server_rec* main);

/* Makes the memory that all child processes share, at the first start. */
int nsapiShareMemory(apr_pool_t* config, apr_pool_t* log, apr_pool_t* temporary,
                     server_rec* main);

/* Runs the Init functions in a new child process; the restart callbacks run
 * when `pool` goes, after the child's worker threads have ended. */
void nsapiStartChild(apr_pool_t* pool, server_rec* server);

/* Takes the path parameters out of the URI that httpd judges. */
int nsapiDropParameters(request_rec* r);

/* Runs the NameTrans functions for a request that no Alias has taken. */
int nsapiTranslate(request_rec* r);

/* Ends a sub-request that was made to translate a URI, once that is done. */
int nsapiEndTranslation(request_rec* r);

/* Spares a request whose URI names no file the look for one. */
int nsapiSkipWalk(request_rec* r);

/* Run the ObjectType functions, and claim what a Service line takes: all but
 * folders before httpd looks for an index file, and folders after it. */
int nsapiType(request_rec* r);
int nsapiTypeFolder(request_rec* r);

/* Runs the Service functions for a claimed request. */
int nsapiServe(request_rec* r);

/* Refuses what has an internal type and no handler: httpd would send the file. */
int nsapiHideSource(request_rec* r);

#ifdef __cplusplus
}
#endif
