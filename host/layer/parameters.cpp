#include "layer/parameters.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "layer/pool.h"
#include "layer/request.h"

namespace host {

// A block and the one bucket that it has.
struct BlockWithBucket {
  pblock block;
  pb_entry* bucket;
};

pblock* newParameters() {
  auto* made = static_cast<BlockWithBucket*>(requestMemory(sizeof(BlockWithBucket)));
  if (!made) return nullptr;
  *made = BlockWithBucket{{1, &made->bucket}, nullptr};
  return &made->block;
}

void freeParameters(pblock* pb) {
  if (!pb) return;
  for (pb_entry* entry = pb->ht[0]; entry;) {
    pb_entry* next = entry->next;
    freeParameter(entry->param);
    releasePoolBlock(entry);
    entry = next;
  }
  releasePoolBlock(pb);
}

// One block holds the parameter and both texts, so that it is there as a whole
// or not at all.
static pb_param* newParameter(const char* name, const char* value) {
  std::size_t nameSize = std::strlen(name) + 1;
  std::size_t valueSize = std::strlen(value) + 1;
  void* memory =
      requestMemory(static_cast<std::int64_t>(sizeof(pb_param) + nameSize + valueSize));
  if (!memory) return nullptr;
  auto* param = static_cast<pb_param*>(memory);
  param->name = reinterpret_cast<char*>(param + 1);
  param->value = param->name + nameSize;
  std::memcpy(param->name, name, nameSize);
  std::memcpy(param->value, value, valueSize);
  return param;
}

// The place for a new entry at the end, or null when the block is full.
static pb_entry** endOf(pblock* pb) {
  int count = 0;
  pb_entry** place = &pb->ht[0];
  while (*place) {
    place = &(*place)->next;
    ++count;
  }
  return count < kMaxParameters ? place : nullptr;
}

static void reportFull(const char* name) {
  HostRequest* request = currentRequest();
  if (!request || request->overfull) return;
  request->overfull = true;
  char message[128];
  (void)std::snprintf(message, sizeof message,
                      "more than %d headers or parameters, dropped from \"%.40s\" on",
                      kMaxParameters, name);
  request->exchange->log(LOG_WARN, "pblock_nvinsert", request, message);
}

pb_param* addParameter(pblock* pb, const char* name, const char* value) {
  if (!pb || !name || !value) return nullptr;
  pb_entry** place = endOf(pb);
  if (!place) {
    reportFull(name);
    return nullptr;
  }
  auto* entry = static_cast<pb_entry*>(requestMemory(sizeof(pb_entry)));
  if (!entry) return nullptr;
  entry->param = newParameter(name, value);
  entry->next = nullptr;
  if (!entry->param) {
    releasePoolBlock(entry);
    return nullptr;
  }
  *place = entry;
  return entry->param;
}

char* findValue(const pblock* pb, const char* name) {
  if (!pb || !name) return nullptr;
  for (const pb_entry* entry = pb->ht[0]; entry; entry = entry->next) {
    if (std::strcmp(entry->param->name, name) == 0) return entry->param->value;
  }
  return nullptr;
}

pb_param* findParameter(pblock* pb, const char* name, bool remove) {
  if (!pb || !name) return nullptr;
  pb_entry** place = &pb->ht[0];
  while (*place && std::strcmp((*place)->param->name, name) != 0) {
    place = &(*place)->next;
  }
  pb_entry* entry = *place;
  if (!entry) return nullptr;
  pb_param* param = entry->param;
  if (remove) {
    *place = entry->next;
    releasePoolBlock(entry);
  }
  return param;
}

void freeParameter(pb_param* param) {
  releasePoolBlock(param);
}

static std::size_t writtenSize(const pblock* pb) {
  std::size_t size = 0;
  for (const pb_entry* entry = pb->ht[0]; entry; entry = entry->next) {
    size += std::strlen(entry->param->name) + std::strlen(entry->param->value) +
            std::strlen("=\"\" ");
    for (const char* c = entry->param->value; *c; ++c) size += *c == '"' || *c == '\\';
  }
  return size;
}

static char* put(char* to, const char* text) {
  return std::copy_n(text, std::strlen(text), to);
}

// A quote or backslash in a value gets a backslash before it, so that the text
// can be read back.
static char* putParameter(char* to, const pb_param* param) {
  to = put(to, param->name);
  to = put(to, "=\"");
  for (const char* c = param->value; *c; ++c) {
    if (*c == '"' || *c == '\\') *to++ = '\\';
    *to++ = *c;
  }
  return put(to, "\"");
}

char* writeParameters(const pblock* pb, const char* before) {
  if (!pb) return nullptr;
  if (!before) before = "";
  std::size_t size = std::strlen(before) + 1 + writtenSize(pb) + 1;
  auto* text = static_cast<char*>(requestMemory(static_cast<std::int64_t>(size)));
  if (!text) return nullptr;
  char* to = put(text, before);
  for (const pb_entry* entry = pb->ht[0]; entry; entry = entry->next) {
    if (to != text) *to++ = ' ';
    to = putParameter(to, entry->param);
  }
  *to = '\0';
  return text;
}

}  // namespace host
