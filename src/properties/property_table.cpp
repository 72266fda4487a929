#include <cstring>

#include "context/memory.h"
#include "context/request_setup.h"
#include "properties/vesk_property.h"

// From the front: of a key that a server sent twice, the first one counts.
static std::int32_t findProperty(const propertyTable* table, const char* key) {
  for (std::int32_t index = 0; index < table->count; ++index) {
    if (std::strcmp(table->entries[index].key, key) == 0) return index;
  }
  return -1;
}

// A table that couldn't be made is asked like an empty one: the caller has a default
// anyway.
const char* getPropertyValue(const propertyTable* table, const char* key) {
  const std::int32_t index = table ? findProperty(table, key) : -1;
  return index < 0 ? nullptr : table->entries[index].value;
}

// Columns elsewhere are parallel to the pairs, so the table never grows: what doesn't fit
// is told and left out.
static bool isFull(vesk_request* req, const propertyTable* table, const char* key,
                   const char* value) {
  if (table->count < kMaxProperties) return false;
  req->log(req, "propertyTable full when trying to add %s = %s", key, value);
  return true;
}

// The copy is made before the old value goes, so that a failure changes nothing.
std::int32_t replaceValue(vesk_request* req, propertyTable* table, std::int32_t index,
                          const char* value) {
  property* pair = &table->entries[index];
  if (std::strcmp(pair->value, value) == 0) return index;
  char* copy = req->permStrdup(req, value);
  if (!copy) return -1;
  freePerm(req, pair->value);
  pair->value = copy;
  return index;
}

std::int32_t addCopies(vesk_request* req, propertyTable* table, const char* key,
                       const char* value) {
  if (isFull(req, table, key, value)) return -1;
  // Both copies are made before the table is touched: a pair is there whole or not at
  // all.
  char* keyCopy = req->permStrdup(req, key);
  if (!keyCopy) return -1;
  char* valueCopy = req->permStrdup(req, value);
  if (!valueCopy) {
    freePerm(req, keyCopy);
    return -1;
  }
  return addProperty(table, keyCopy, valueCopy);
}

std::int32_t setProperty(vesk_request* req, propertyTable* table, const char* key,
                         const char* value) {
  if (!req) {
    vesk_request silent;
    init_allocators(&silent);
    silent.log(&silent, "setProperty: null vesk_request");
    return -1;
  }
  const std::int32_t index = findProperty(table, key);
  if (index >= 0) return replaceValue(req, table, index, value);
  return addCopies(req, table, key, value);
}

std::int32_t addProperty(propertyTable* table, char* key, char* value) {
  table->entries[table->count] = {.key = key, .value = value};
  return table->count++;
}

std::int32_t addProperty1(vesk_request* req, propertyTable* table, char* key,
                          char* value) {
  if (isFull(req, table, key, value)) return -1;
  return addProperty(table, key, value);
}

std::int32_t removePropertyByIndex(vesk_request* req, propertyTable* table,
                                   std::int32_t index) {
  if (table->count == 0) return 0;
  property* pair = &table->entries[index];
  freePerm(req, pair->key);
  freePerm(req, pair->value);

  const std::int32_t later = table->count - index - 1;
  // Order is meaning here, for sorted mappings above all: the rest moves up.
  std::memmove(pair, pair + 1, static_cast<std::size_t>(later) * sizeof(property));
  table->entries[--table->count] = {.key = nullptr, .value = nullptr};
  return table->count;
}

std::int32_t removeProperty(vesk_request* req, propertyTable* table, const char* key,
                            const char* value) {
  // Setting first finds the pair, and makes one where there is none: so the outcome is
  // the same whether the key was there, and the result always counts a removal.
  const std::int32_t index = setProperty(req, table, key, value);
  return index < 0 ? -1 : removePropertyByIndex(req, table, index);
}

void freeProperties(vesk_request* req, propertyTable* table) {
  if (!table) return;
  for (std::int32_t index = 0; index < table->count; ++index) {
    freePerm(req, table->entries[index].key);
    freePerm(req, table->entries[index].value);
  }
  req->permFree(req, table);
}

void freeProperties1(propertyTable* table) {
  vesk_request silent;
  init_allocators(&silent);
  freeProperties(&silent, table);
}

std::int32_t setProperty1(propertyTable* table, const char* key, const char* value) {
  vesk_request silent;
  init_allocators(&silent);
  return setProperty(&silent, table, key, value);
}
