// Property text of a server or a file: parsed, sorted as mappings, and expanded.
#include <cstdlib>
#include <cstring>
#include <string>

#include "context/memory.h"
#include "context/request_setup.h"
#include "properties/property_expansion.h"
#include "properties/vesk_property.h"
#include "proxy/mapping_order.h"

static void expandAll(const propertyTable* table) {
  for (std::int32_t i = 0; i < table->count && i < 8; ++i) {
    char* text = getPropertyValue2(table, table, table->entries[i].key);
    if (text && std::strlen(text) > std::size_t{kMaxExpandedLength}) std::abort();
    doFree(nullptr, text);
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text.push_back(static_cast<char>(data[i]));
  vesk_request req;
  init_vesk_request(&req);
  propertyTable* table = parseProperties(&req, text.c_str());
  if (!table) return 0;
  expandAll(table);
  (void)sortMappings(&req, table);
  for (std::int32_t i = 1; i < table->count; ++i)
    if (longerThan(&table->entries[i], &table->entries[i - 1])) std::abort();
  freeProperties(&req, table);
  return 0;
}
