#include "nsapi/host_objects.h"

#include <cstring>

bool isInternalType(const char* type) {
  constexpr char kPrefix[] = "vesk-internal/";
  return type && std::strncmp(type, kPrefix, sizeof kPrefix - 1) == 0;
}

void dropParameter(const char* name, pblock* block) {
  (void)param_free(pblock_remove(name, block));
}
