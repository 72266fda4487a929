#include "proxy/mapping_order.h"

#include <gtest/gtest.h>

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
};

static std::string sorted(RecordedRequest& t, const char* sent,
                          std::int64_t failing = 0) {
  t.failAllocation = 0;
  propertyTable* table = parseProperties(t.req, sent);
  if (failing) t.failAllocation = t.allocations + failing;
  sortMappings(t.req, table);
  std::string told;
  for (std::int32_t i = 0; i < table->count; ++i)
    told += std::string(table->entries[i].key) + "=" + table->entries[i].value + " ";
  freeProperties(t.req, table);
  EXPECT_EQ(t.permBlocks, 0);
  return told;
}

TEST(mappingOrder, tableIsConvertedAndSorted) {
  RecordedRequest t;
  for (const auto& [why, sent, expected] : kOrders)
    EXPECT_EQ(sorted(t, sent), expected) << why;
}

// Without memory a pattern stays as the server sent it: no target is lost.
TEST(mappingOrder, everyAllocationMayFail) {
  for (std::int64_t n = 1; n < 8; ++n) {
    RecordedRequest t;
    const std::string told = sorted(t, "/foo*=1\n/foo/*=2", n);
    EXPECT_NE(told.find("=2 "), std::string::npos) << n << ": " << told;
    (void)sorted(t, "/foo*=1\n/foo/*=2\n/foo//*=3", n);
  }
}
