#include "context/memory.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "context/text.h"

using Allocator = void* (*)(vesk_request*, std::int32_t);

// The upper end alone is checked: an allocator gives one byte for what is not positive.
static void* checkedBlock(vesk_request* req, Allocator allocate, std::int64_t size) {
  if (size > INT_MAX) return nullptr;
  return allocate(req, static_cast<std::int32_t>(size));
}

// Cleared by hand: the record's allocators know no cleared blocks, and a host's pool need
// not clear what it hands out again.
static void* zeroedBlock(vesk_request* req, Allocator allocate, std::int64_t size) {
  void* block = checkedBlock(req, allocate, size);
  return block ? std::memset(block, 0, static_cast<std::size_t>(size)) : nullptr;
}

static char* copyWith(vesk_request* req, Allocator allocate, std::string_view text) {
  // No text is longer than half of the address space, so the sum can't wrap.
  const auto size = static_cast<std::int64_t>(text.size()) + 1;
  auto* copy = static_cast<char*>(checkedBlock(req, allocate, size));
  if (!copy) return nullptr;
  if (!text.empty()) std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

void* newBlock(vesk_request* req, std::int64_t size) {
  return checkedBlock(req, req->malloc, size);
}

void* newZeroed(vesk_request* req, std::int64_t size) {
  return zeroedBlock(req, req->malloc, size);
}

char* copyText(vesk_request* req, std::string_view text) {
  return copyWith(req, req->malloc, text);
}

const char** newTextArray(vesk_request* req, std::int64_t count) {
  // The sum below must not leave 64 bits before newZeroed looks at it.
  if (count >= INT_MAX) return nullptr;
  const std::int64_t size = (count + 1) * std::int64_t{sizeof(char*)};
  return static_cast<const char**>(newZeroed(req, size));
}

void* newPermBlock(vesk_request* req, std::int64_t size) {
  return checkedBlock(req, req->permMalloc, size);
}

void* newPermZeroed(vesk_request* req, std::int64_t size) {
  return zeroedBlock(req, req->permMalloc, size);
}

char* copyPermText(vesk_request* req, std::string_view text) {
  return copyWith(req, req->permMalloc, text);
}

// permFree logs a null, for a null that is given back hides a mistake. Here it is none:
// records are taken apart in whatever state their making broke off.
void freePerm(vesk_request* req, void* block) {
  if (block) req->permFree(req, block);
}

void* doMalloc(vesk_request* /*req*/, std::int32_t size) {
  return std::malloc(size > 0 ? static_cast<std::size_t>(size) : 1);
}

// Callers without a record have no way to report a null, so they get a text in any case.
char* doStrdup(vesk_request* /*req*/, const char* text) {
  return ::strdup(text ? text : "");
}

void doFree(vesk_request* /*req*/, void* block) {
  std::free(block);
}

void* veskMalloc(vesk_request* req, std::int32_t size) {
  void* block = doMalloc(req, size);
  if (!block) req->log(req, "malloc(%d) failed!", size);
  return block;
}

// The copies go through the record and not to the heap: whoever has put another
// allocator there means these texts as well.

char* veskStrdup(vesk_request* req, const char* text) {
  if (!text) return nullptr;
  char* copy = copyText(req, text);
  if (!copy) req->log(req, "strdup(%d) failed!", clampToInt32(textLength(text)));
  return copy;
}

char* veskPermStrdup(vesk_request* req, const char* text) {
  if (!text) return nullptr;
  char* copy = copyPermText(req, text);
  if (!copy) req->log(req, "perm_strdup(%d) failed!", clampToInt32(textLength(text)));
  return copy;
}

void veskFree(vesk_request* req, void* block) {
  if (!block) {
    req->log(req, "free(null) !");
    return;
  }
  std::free(block);
}
