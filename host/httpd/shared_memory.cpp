#include "httpd/shared_memory.h"

#include <httpd.h>

#include <fcntl.h>
#include <http_config.h>
#include <http_log.h>
#include <sys/mman.h>
#include <unistd.h>

#include "httpd/mod_nsapi.h"

APLOG_USE_MODULE(nsapi);

namespace host {

// More than any plug-in here takes.
constexpr off_t kSharedSize = 4 << 20;

constexpr const char* kRetained = "mod_nsapi-shared-memory";

static int descriptor = -1;

int sharedMemory() {
  return descriptor;
}

static int makeMemory() {
  int memory = memfd_create("mod_nsapi", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  // A child that made it smaller would end all others at their next look.
  if (memory >= 0 && ftruncate(memory, kSharedSize) == 0 &&
      fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
    return memory;
  }
  if (memory >= 0) close(memory);
  return -1;
}

}  // namespace host

// A reload loads the module anew: what is to outlive that is kept by httpd itself.
int nsapiShareMemory(apr_pool_t*, apr_pool_t*, apr_pool_t*, server_rec* main) {
  auto* kept = static_cast<int*>(ap_retained_data_get(host::kRetained));
  if (!kept) {
    kept = static_cast<int*>(ap_retained_data_create(host::kRetained, sizeof(int)));
    *kept = host::makeMemory();
    if (*kept < 0)
      ap_log_error(APLOG_MARK, APLOG_WARNING, errno, main,
                   "no shared memory: each child counts for itself");
  }
  host::descriptor = *kept;
  return OK;
}
