#include "context/attributes.h"

#include <climits>
#include <cstring>

static const veskAttribute* findAttribute(const vesk_request* req, const char* name) {
  const veskAttribute* node = req->attributes;
  while (node && std::strcmp(node->name, name) != 0) node = node->next;
  return node;
}

void getAttribute(vesk_request* req, const char* name, void* destination) {
  const veskAttribute* found = findAttribute(req, name);
  if (!found || found->size <= 0) return;
  std::memcpy(destination, found->value, static_cast<std::size_t>(found->size));
}

std::int32_t getAttributeSize(vesk_request* req, const char* name) {
  const veskAttribute* found = findAttribute(req, name);
  return found ? found->size : 0;
}

// An array for `count` names and the null behind them, all null yet.
static char** newNameArray(vesk_request* req, std::int32_t count) {
  const std::int64_t size = (std::int64_t{count} + 1) * std::int64_t{sizeof(char*)};
  if (size > INT_MAX) return nullptr;
  void* block = req->malloc(req, static_cast<std::int32_t>(size));
  if (!block) return nullptr;
  return static_cast<char**>(std::memset(block, 0, static_cast<std::size_t>(size)));
}

char** getAttributeNames(vesk_request* req) {
  if (!req->attributes) return nullptr;
  req->freeAttributeNames(req);
  req->attributeNames = newNameArray(req, req->attributes->count);
  if (!req->attributeNames) return nullptr;

  char** slot = req->attributeNames;
  for (const veskAttribute* node = req->attributes; node; node = node->next) {
    *slot = req->strdup(req, node->name);
    if (!*slot++) {
      req->freeAttributeNames(req);
      return nullptr;
    }
  }
  return req->attributeNames;
}

void setAttribute(vesk_request* req, const char* name, const void* value,
                  std::int32_t size) {
  auto* node = static_cast<veskAttribute*>(req->malloc(req, sizeof(veskAttribute)));
  if (!node) return;
  *node = {.name = name,
           .value = value,
           .next = req->attributes,
           .count = req->attributes ? req->attributes->count + 1 : 1,
           .size = size};
  req->attributes = node;
}

void freeAttributes(vesk_request* req) {
  veskAttribute* node = req->attributes;
  req->attributes = nullptr;
  while (node) {
    veskAttribute* next = node->next;
    req->free(req, node);
    node = next;
  }
}

void freeAttributeNames(vesk_request* req) {
  char** names = req->attributeNames;
  if (!names) return;
  req->attributeNames = nullptr;
  for (char** name = names; *name; ++name) req->free(req, *name);
  req->free(req, static_cast<void*>(names));
}
