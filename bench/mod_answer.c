/* A handler of httpd that answers by itself: what a request costs in httpd before
 * anything is forwarded. scripts/bench compiles it by apxs and loads it.
 *
 * /b/ANYTHING?n=COUNT gives that many bytes, 1 MiB at most. As with modules that
 * forward, the URI is taken at the translation and no folder is walked. */
#include <stdlib.h>
#include <string.h>

#include "httpd.h"

#include "http_config.h"
#include "http_protocol.h"

static const char kHandler[] = "answer";
static char content[1 << 20];

static int translate(request_rec* r) {
  if (strncmp(r->uri, "/b/", 3) != 0) return DECLINED;
  r->handler = kHandler;
  r->filename = r->uri;
  return OK;
}

static int endTranslation(request_rec* r) {
  return r->handler == kHandler ? OK : DECLINED;
}

static int answer(request_rec* r) {
  apr_bucket_alloc_t* memory = r->connection->bucket_alloc;
  apr_bucket_brigade* page = apr_brigade_create(r->pool, memory);
  apr_size_t size = 0;
  if (r->handler != kHandler) return DECLINED;
  if (r->args && strncmp(r->args, "n=", 2) == 0) size = strtoul(r->args + 2, NULL, 10);
  if (size > sizeof content) return HTTP_BAD_REQUEST;
  ap_set_content_type(r, "application/octet-stream");
  ap_set_content_length(r, (apr_off_t)size);
  APR_BRIGADE_INSERT_TAIL(page, apr_bucket_immortal_create(content, size, memory));
  APR_BRIGADE_INSERT_TAIL(page, apr_bucket_eos_create(memory));
  return ap_pass_brigade(r->output_filters, page) == APR_SUCCESS
             ? OK
             : HTTP_INTERNAL_SERVER_ERROR;
}

static void addHooks(apr_pool_t* pool) {
  (void)pool;
  ap_hook_translate_name(translate, NULL, NULL, APR_HOOK_FIRST);
  ap_hook_map_to_storage(endTranslation, NULL, NULL, APR_HOOK_REALLY_FIRST);
  ap_hook_handler(answer, NULL, NULL, APR_HOOK_FIRST);
}

AP_DECLARE_MODULE(answer) = {
    STANDARD20_MODULE_STUFF, NULL, NULL, NULL, NULL, NULL, addHooks};
