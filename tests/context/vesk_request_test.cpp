#include "context/vesk_request.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "context/attributes.h"
#include "context/clock.h"
#include "context/request_setup.h"
#include "support/recorded_request.h"

TEST(request, freshRecordsAreUsableAndSilent) {
  vesk_request full;
  vesk_request small;
  std::memset(&full, 0x5A, sizeof full);
  timeval now;
  gtod(&now);
  init_vesk_request(&full);
  init_allocators(&small);

  EXPECT_LT(std::abs(full.startTime - tvToMillis(&now)), 60000);
  EXPECT_EQ(full.getHeader, nullptr);
  EXPECT_EQ(full.getAttributeNames(&full), nullptr);
  EXPECT_EQ(full.strdup(&full, nullptr), nullptr);
  full.traceE(&full, ~std::uint64_t{0}, "%d", 1);
  for (vesk_request* req : {&full, &small}) {
    for (const std::int32_t size : {0, -1, INT32_MIN}) {
      auto* block = static_cast<char*>(req->malloc(req, size));
      ASSERT_NE(block, nullptr);
      *block = 'x';  // one byte: the sanitizer would see less
      req->free(req, block);
    }
  }
}

TEST(request, filesAreNotHandedToOtherPrograms) {
  vesk_request req;
  init_vesk_request(&req);
  const std::string path = ::testing::TempDir() + "vesk-file-" + std::to_string(getpid());
  for (const char* mode : {"w", "a", "r"}) {
    std::FILE* file = req.fileOpen(&req, path.c_str(), mode);
    ASSERT_NE(file, nullptr) << mode;
    EXPECT_EQ(fcntl(fileno(file), F_GETFD), FD_CLOEXEC) << mode;
    (void)std::fclose(file);
  }
  (void)std::remove(path.c_str());
}

TEST(attributes, newestOfANameIsFoundAndBothAreNamed) {
  RecordedRequest t;
  for (const char* value : {"old!", "new"})
    t.req->setAttribute(t.req, "a", value, static_cast<std::int32_t>(strlen(value)));
  t.req->setAttribute(t.req, "b", "x", 1);
  char found[4] = "...";

  EXPECT_EQ(t.req->getAttributeSize(t.req, "a"), 3);
  EXPECT_EQ(t.req->getAttributeSize(t.req, "A"), 0);
  t.req->getAttribute(t.req, "none", found);
  EXPECT_STREQ(found, "...");
  t.req->getAttribute(t.req, "a", found);
  EXPECT_STREQ(found, "new");
  (void)t.req->getAttributeNames(t.req);
  char** names = t.req->getAttributeNames(t.req);
  EXPECT_EQ(std::string(names[0]) + names[1] + names[2], "baa");
  EXPECT_EQ(names[3], nullptr);

  t.req->freeAttributeNames(t.req);
  t.req->freeAttributes(t.req);
  EXPECT_EQ(t.leaks(), 0);
}

TEST(attributes, exhaustedMemoryLeavesListAndNamesWhole) {
  for (int failing = 1; failing <= 6; ++failing) {
    RecordedRequest t;
    t.failAllocation = failing;
    t.req->setAttribute(t.req, "a", "1", 1);
    t.req->setAttribute(t.req, "b", "22", 2);
    ASSERT_NE(t.req->attributes, nullptr);
    EXPECT_EQ(t.req->attributes->count, failing <= 2 ? 1 : 2);
    char** names = t.req->getAttributeNames(t.req);
    EXPECT_EQ(names == nullptr, failing > 2 && failing < 6) << failing;
    EXPECT_EQ(names, t.req->attributeNames);
    t.req->freeAttributeNames(t.req);
    t.req->freeAttributes(t.req);
    EXPECT_EQ(t.leaks(), 0) << failing;
  }
}

// Long enough for an index, which grows twice; without memory for it nothing changes.
TEST(attributes, newestOfANameIsFoundInALongListWithAndWithoutItsIndex) {
  constexpr int kNames = 3 * kMaxWalkedAttributes;
  std::vector<std::string> names;
  for (int i = 0; i < kNames; ++i) names.push_back("name" + std::to_string(i));
  for (const bool indexed : {true, false}) {
    RecordedRequest t;
    for (int i = 0; i < 4 * kNames; ++i) {
      const std::int64_t next = t.allocations + 1;
      if (!indexed) t.failAllocation = next + 1;  // behind the node's own
      t.req->setAttribute(t.req, names[i % kNames].c_str(), names[i / kNames].c_str(), i);
    }
    EXPECT_EQ(t.req->attributeIndex != nullptr, indexed);
    int differing = 0;
    for (int i = 0; i < kNames; ++i)
      differing += t.req->getAttributeSize(t.req, names[i].c_str()) != 3 * kNames + i;
    EXPECT_EQ(differing, 0);
    EXPECT_EQ(t.req->getAttributeSize(t.req, "none"), 0);
    t.req->freeAttributes(t.req);
    EXPECT_EQ(t.leaks(), 0);
  }
}
