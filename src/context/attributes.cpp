#include "context/attributes.h"

#include <cstring>

#include "context/memory.h"
#include "context/text.h"

// The newest node of each name, by the name's hash: open addressing, never more than
// half full, so that a search always meets an empty slot.
struct veskAttributeIndex {
  std::int32_t capacity;  // slots, a power of two
  std::int32_t used;
  veskAttribute* slots[1];  // as many as `capacity`; null: empty
};

// The slot of a name: where it stands, or the empty one where it would.
static veskAttribute** slotOf(veskAttributeIndex* index, const char* name) {
  const auto mask = static_cast<std::uint32_t>(index->capacity) - 1;
  std::uint32_t at = hashText(name) & mask;
  while (index->slots[at] && std::strcmp(index->slots[at]->name, name) != 0)
    at = (at + 1) & mask;
  return &index->slots[at];
}

// Enters a node as the newest of its name. REQUIRES: an empty slot remains.
static void enterNode(veskAttributeIndex* index, veskAttribute* node) {
  veskAttribute** slot = slotOf(index, node->name);
  if (!*slot) ++index->used;
  *slot = node;
}

// A list without its index is only slower: nothing else depends on it.
static void dropIndex(vesk_request* req) {
  if (req->attributeIndex) req->free(req, req->attributeIndex);
  req->attributeIndex = nullptr;
}

// Makes an index with four slots a node, so that the next one is made only when the
// list has doubled. What fails here costs speed alone.
static void rebuildIndex(vesk_request* req) {
  dropIndex(req);
  std::int64_t capacity = 1;
  while (capacity < std::int64_t{4} * req->attributes->count) capacity *= 2;
  constexpr std::int64_t kSlotSize = sizeof(veskAttributeIndex::slots);
  const std::int64_t size =
      std::int64_t{sizeof(veskAttributeIndex)} + (capacity - 1) * kSlotSize;
  auto* index = static_cast<veskAttributeIndex*>(newZeroed(req, size));
  if (!index) return;
  index->capacity = static_cast<std::int32_t>(capacity);
  // The list is newest first: the first of a name is the one that counts.
  for (veskAttribute* node = req->attributes; node; node = node->next)
    if (!*slotOf(index, node->name)) enterNode(index, node);
  req->attributeIndex = index;
}

static void indexNewest(vesk_request* req) {
  veskAttributeIndex* index = req->attributeIndex;
  if (index && 2 * (index->used + 1) <= index->capacity) {
    enterNode(index, req->attributes);
  } else if (req->attributes->count > kMaxWalkedAttributes) {
    rebuildIndex(req);
  }
}

static const veskAttribute* findAttribute(const vesk_request* req, const char* name) {
  if (req->attributeIndex) return *slotOf(req->attributeIndex, name);
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

// Copies every name, newest first: true, or false when memory runs out on the way.
static bool copyNames(vesk_request* req, char** slots) {
  for (const veskAttribute* node = req->attributes; node; node = node->next) {
    *slots = req->strdup(req, node->name);
    if (!*slots++) return false;
  }
  return true;
}

// An array with a gap would end too early for its readers: it is whole, or none.
char** getAttributeNames(vesk_request* req) {
  if (!req->attributes) return nullptr;
  req->freeAttributeNames(req);
  req->attributeNames = const_cast<char**>(newTextArray(req, req->attributes->count));
  if (req->attributeNames && !copyNames(req, req->attributeNames))
    req->freeAttributeNames(req);
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
  indexNewest(req);
}

void freeAttributes(vesk_request* req) {
  dropIndex(req);  // it refers to the nodes
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
  // Up to the null, wherever it stands: an array that was cut short by a failed copy ends
  // there.
  for (char** name = names; *name; ++name) req->free(req, *name);
  req->free(req, static_cast<void*>(names));
}
