#include "proxy/mapping_order.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "support/recorded_request.h"

// Why, what the server sent, "key=value " for each of what it becomes.
constexpr const char* kOrders[][3] = {
    {"hosts first, then prefixes, then suffixes",
     "*.jsp=1\n/foo*=2\n/foo/bar=3\n//a/b*=4\n/foo*.do=5\n/foo*.jsp=6\n",
     "//a/b*=4 /foo/bar=3 /foo*.jsp=6 /foo*.do=5 /foo*=2 *.jsp=1 "},
    {"equals keep order", "/aa=1\n/bb*=2\n/cc=3\n/bb=4", "/aa=1 /bb*=2 /cc=3 /bb=4 "},
    {"a slash in front of '*' goes", "/a/*=1\n/b/*.do=2\n/=3", "/b*.do=2 /a*=1 /=3 "},
    {"a lone star is left", "/*=1\n", "*=1 "},
    {"the slash behind a host goes", "//host/*=1\n", "//host*=1 "},
    {"only the first star counts", "/a/b*/c/*=1\n*/x=2\n", "/a/b*/c/*=1 */x=2 "},
    {"double: the converted one's value stays", "/foo*=1\n/foo/*=2\n", "/foo*=2 "},
    {"double, the other way round", "/foo/*=2\n/foo*=1\n", "/foo*=2 "},
    {"a doomed value is replaced", "/foo*=1\n/foo/*=2\n/foo//*=3\n", "/foo*=2 "},
    {"three in a row, the longest first", "/foo//*=3\n/foo/*=2\n/foo*=1\n", "/foo*=3 "},
    {"double, and found by the key that it had", "/a/*=1\n/a/*=2\n/a//*=3\n", "/a*=2 "},
};

// "none" when it failed for want of memory.
static std::string sorted(RecordedRequest& t, const std::string& sent,
                          std::int64_t failing = 0) {
  t.failAllocation = 0;
  propertyTable* table = parseProperties(t.req, sent.c_str());
  if (failing) t.failAllocation = t.allocations + failing;
  const bool whole = sortMappings(t.req, table) == 0;
  std::string told;
  for (std::int32_t i = 0; i < table->count; ++i)
    told += std::string(table->entries[i].key) + "=" + table->entries[i].value + " ";
  freeProperties(t.req, table);
  EXPECT_EQ(t.permBlocks, 0);
  return whole ? told : "none";
}

TEST(mappingOrder, tableIsConvertedAndSorted) {
  RecordedRequest t;
  for (const auto& [why, sent, expected] : kOrders)
    EXPECT_EQ(sorted(t, sent), expected) << why;
}

TEST(mappingOrder, setThatLosesMemoryIsNone) {
  for (const int n : {1, 2, 3, 4}) {  // four keys are written anew, one value is
    RecordedRequest t;
    EXPECT_EQ(sorted(t, "/bar/*=0\n/foo*=1\n/foo/*=2\n/foo//*=2", n), "none") << n;
    EXPECT_EQ(t.req->lastError, ENOBUFS);
  }
}

// Several times what is sorted together, in both directions and with equals.
TEST(mappingOrder, fullTableIsSortedStably) {
  std::string sent, expected[8];
  for (int i = 0; i < kMaxProperties; ++i) {
    const auto length = static_cast<std::size_t>(i * 5 % 8);
    const std::string key = "/" + std::string(length, 'x') + std::to_string(10000 + i);
    sent.append(key).append(i % 3 ? "*=t\n" : "/*=t\n");
    expected[7 - length].append(key).append("*=t ");
  }
  std::string all;
  for (const std::string& part : expected) all += part;
  RecordedRequest t;
  EXPECT_EQ(sorted(t, sent), all);
}
