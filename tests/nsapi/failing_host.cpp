#include "failing_host.h"

#include <gtest/gtest.h>

#include <cstring>

#include "layer/request_setup.h"

static FailingHost* current;
static nsapi_dispatch_t* const real = __nsapi30_table;
static nsapi_dispatch_t failing;

static bool isDue(std::int64_t* count) {
  return *count > 0 && --*count == 0;
}

// What an allocation gives, unless it is the one that fails.
template <class Allocate>
static auto counted(Allocate allocate, std::int64_t* blocks) -> decltype(allocate()) {
  if (isDue(&current->failAllocation)) return nullptr;
  ++*blocks;
  return allocate();
}

static pb_param* insert(const char* name, const char* value, pblock* block) {
  if (isDue(&current->failInsertion)) {
    current->failInsertion = current->failsForGood ? 1 : 0;
    return nullptr;
  }
  pb_param* param = real->f_pblock_nvinsert(name, value, block);
  if (!current->insertsInFront) return param;
  pb_entry** place = &block->ht[0];
  while ((*place)->next) place = &(*place)->next;
  pb_entry* last = *place;
  *place = nullptr;
  last->next = block->ht[0];
  block->ht[0] = last;
  return param;
}

static void replaceEntries() {
  failing = *real;
  failing.f_system_malloc = [](int size) {
    EXPECT_GT(size, 0);
    return counted([=] { return real->f_system_malloc(size); }, &current->poolBlocks);
  };
  failing.f_system_strdup = [](const char* text) {
    return counted([=] { return real->f_system_strdup(text); }, &current->poolBlocks);
  };
  failing.f_system_free = [](void* block) {
    EXPECT_NE(block, nullptr);
    --current->poolBlocks;
    real->f_system_free(block);
  };
  failing.f_system_malloc_perm = [](int size) {
    EXPECT_GT(size, 0);
    return counted([=] { return real->f_system_malloc_perm(size); },
                   &current->permBlocks);
  };
  failing.f_system_strdup_perm = [](const char* text) {
    return counted([=] { return real->f_system_strdup_perm(text); },
                   &current->permBlocks);
  };
  failing.f_system_free_perm = [](void* block) {
    EXPECT_NE(block, nullptr);
    --current->permBlocks;
    real->f_system_free_perm(block);
  };
  failing.f_crit_init = [] {
    ++current->criticalSections;
    return real->f_crit_init();
  };
  failing.f_pblock_nvinsert = insert;
  failing.f_pblock_nninsert = [](const char* name, int value, pblock* block) {
    return insert(name, std::to_string(value).c_str(), block);
  };
}

FailingHost::FailingHost() {
  current = this;
  replaceEntries();
  __nsapi30_table = &failing;
  EXPECT_TRUE(openRequest(&request, &client));
}

FailingHost::~FailingHost() {
  EXPECT_EQ(permBlocks, 0);
  __nsapi30_table = real;
}

std::string FailingHost::get(const pblock* block, const char* name) {
  std::string values;
  for (const pb_entry* entry = block->ht[0]; entry; entry = entry->next) {
    if (std::strcmp(entry->param->name, name) != 0) continue;
    values.append(values.empty() ? "" : "|").append(entry->param->value);
  }
  return values.empty() ? "-" : values;
}

void FailingHost::set(pblock* block, const char* name, const char* value) {
  while (param_free(pblock_remove(name, block)) != 0) {
  }
  if (value) (void)real->f_pblock_nvinsert(name, value, block);
}
