#include "layer/parameters.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "layer/pool.h"
#include "layer/request.h"

namespace host {

// A block, the one bucket that it has, and what makes it quick: most look-ups are for
// names that it hasn't got.
struct OwnBlock {
  pblock block;
  pb_entry* bucket;
  pb_entry** end;       // the place for the next entry
  std::int32_t count;   // of entries
  std::uint64_t marks;  // of all names that were ever put here, see markOf
};

// An entry, its parameter and both texts are one piece of memory, so that they are there
// as a whole or not at all. Who detaches the parameter gets all of it.
struct OwnParameter {
  pb_param param;
  pb_entry entry;
};

static OwnBlock* own(pblock* pb) {
  return static_cast<OwnBlock*>(static_cast<void*>(pb));
}

// One of 64 bits, by a name's first two characters, in such a way that the two cases of
// one letter come out apart.
static std::uint64_t markOf(const char* name) {
  constexpr std::uint32_t kScatter = 0x9e3779b1U;
  const auto first = static_cast<unsigned char>(name[0]);
  const auto second = static_cast<unsigned char>(first ? name[1] : 0);
  return std::uint64_t{1} << ((first * 256U + second) * kScatter >> 26U);
}

pblock* newParameters() {
  auto* made = static_cast<OwnBlock*>(requestMemory(sizeof(OwnBlock)));
  if (!made) return nullptr;
  *made = OwnBlock{{1, &made->bucket}, nullptr, &made->bucket, 0, 0};
  return &made->block;
}

void freeParameters(pblock* pb) {
  if (!pb) return;
  for (pb_entry* entry = pb->ht[0]; entry;) {
    pb_entry* next = entry->next;
    freeParameter(entry->param);
    entry = next;
  }
  releasePoolBlock(pb);
}

static OwnParameter* newParameter(const char* name, const char* value) {
  const std::size_t nameSize = std::strlen(name) + 1;
  const std::size_t valueSize = std::strlen(value) + 1;
  void* memory = requestMemory(
      static_cast<std::int64_t>(sizeof(OwnParameter) + nameSize + valueSize));
  if (!memory) return nullptr;
  auto* made = static_cast<OwnParameter*>(memory);
  char* texts = reinterpret_cast<char*>(made + 1);
  *made = OwnParameter{{texts, texts + nameSize}, {&made->param, nullptr}};
  std::memcpy(made->param.name, name, nameSize);
  std::memcpy(made->param.value, value, valueSize);
  return made;
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
  OwnBlock* block = own(pb);
  if (block->count >= kMaxParameters) {
    reportFull(name);
    return nullptr;
  }
  OwnParameter* made = newParameter(name, value);
  if (!made) return nullptr;
  // The chain is public: a plug-in may have put it in another order.
  while (*block->end) block->end = &(*block->end)->next;
  *block->end = &made->entry;
  block->end = &made->entry.next;
  block->marks |= markOf(name);
  ++block->count;
  return &made->param;
}

static bool mayHold(const OwnBlock* block, const char* name) {
  return (block->marks & markOf(name)) != 0;
}

// The place that leads to the first entry of that name, or null.
static pb_entry** placeOf(OwnBlock* block, const char* name) {
  for (pb_entry** place = &block->bucket; *place; place = &(*place)->next) {
    const char* each = (*place)->param->name;
    if (*each == *name && std::strcmp(each, name) == 0) return place;
  }
  return nullptr;
}

char* findValue(pblock* pb, const char* name) {
  if (!pb || !name || !mayHold(own(pb), name)) return nullptr;
  pb_entry** place = placeOf(own(pb), name);
  return place ? (*place)->param->value : nullptr;
}

pb_param* findParameter(pblock* pb, const char* name, bool remove) {
  if (!pb || !name || !mayHold(own(pb), name)) return nullptr;
  OwnBlock* block = own(pb);
  pb_entry** place = placeOf(block, name);
  if (!place) return nullptr;
  pb_entry* entry = *place;
  if (remove) {
    *place = entry->next;
    if (block->end == &entry->next) block->end = place;
    --block->count;
  }
  return entry->param;
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
