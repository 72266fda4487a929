#include "nsapi/host_objects.h"

#include <cstring>

// By exact case: a host passes its configuration's spelling on as it is, and another
// spelling is another type.
bool isInternalType(const char* type) {
  constexpr char kPrefix[] = "vesk-internal/";
  return type && std::strncmp(type, kPrefix, sizeof kPrefix - 1) == 0;
}

const pb_param* nextParameter(BlockWalk* walk) {
  while (!walk->entry) {
    if (!walk->block || walk->bucket >= walk->block->hsize) return nullptr;
    walk->entry = walk->block->ht[walk->bucket++];
  }
  const pb_param* param = walk->entry->param;
  walk->entry = walk->entry->next;
  return param;
}

void dropParameter(const char* name, pblock* block) {
  (void)param_free(pblock_remove(name, block));
}
