#include "nsapi/host_memory.h"

#include <nsapi.h>

// One byte in place of none: hosts differ in what they give for 0, and null would be
// taken for a full heap. The line shows the size that was asked for.
void* nsapi_malloc(vesk_request* req, std::int32_t size) {
  void* block = system_malloc(size > 0 ? size : 1);
  if (!block) req->log(req, "nsapi_malloc(%d) failed!", size);
  return block;
}

void* nsapi_perm_malloc(vesk_request* req, std::int32_t size) {
  void* block = system_malloc_perm(size > 0 ? size : 1);
  if (!block) req->log(req, "nsapi_perm_malloc(%d) failed!", size);
  return block;
}

// A missing text is a caller's mistake, or an option that isn't set, as for the table's
// store and bootstrap server: a line tells, and start-up goes on.
char* nsapi_strdup(vesk_request* req, const char* text) {
  if (text) return system_strdup(text);
  req->log(req, "nsapi_strdup(NULL)!");
  return nullptr;
}

char* nsapi_perm_strdup(vesk_request* req, const char* text) {
  if (text) return system_strdup_perm(text);
  req->log(req, "nsapi_perm_strdup(NULL)!");
  return nullptr;
}

// Null shows a block that was given back twice or never had; a host's own function may
// fall over it.
void nsapi_free(vesk_request* req, void* block) {
  if (block)
    system_free(block);
  else
    req->log(req, "nsapi_free(NULL)!");
}

void nsapi_perm_free(vesk_request* req, void* block) {
  if (block)
    system_free_perm(block);
  else
    req->log(req, "nsapi_perm_free(NULL)!");
}
