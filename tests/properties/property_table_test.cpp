#include <gtest/gtest.h>

#include <string>

#include "properties/vesk_property.h"
#include "support/recorded_request.h"

class Table : public testing::Test {
 protected:
  explicit Table() {
    for (const char* key : {"a", "b", "c"})
      EXPECT_GE(setProperty(t.req, table, key, "1"), 0);
  }
  ~Table() override {
    freeProperties(t.req, table);
    EXPECT_EQ(t.permBlocks, 0);
  }
  RecordedRequest t;
  propertyTable* table = parseProperties(t.req, "");
};

TEST_F(Table, setReplacesInPlaceAndComparesExactly) {
  EXPECT_EQ(setProperty(t.req, table, "b", "2"), 1);
  EXPECT_STREQ(getPropertyValue(table, "b"), "2");
  EXPECT_EQ(setProperty(t.req, table, "B", "3"), 3);
  EXPECT_EQ(getPropertyValue(table, "d"), nullptr);
  EXPECT_EQ(getPropertyValue(nullptr, "d"), nullptr);
  EXPECT_EQ(setProperty(nullptr, table, "a", "2"), -1);
}

TEST_F(Table, setWithoutMemoryChangesNothing) {
  for (const int failing : {1, 2}) {
    t.failAllocation = t.allocations + failing;
    EXPECT_EQ(setProperty(t.req, table, "new", "1"), -1);
    EXPECT_EQ(table->count, 3);
  }
  t.failAllocation = t.allocations + 1;
  EXPECT_EQ(setProperty(t.req, table, "a", "1"), 0) << "nothing to replace";
  EXPECT_EQ(setProperty(t.req, table, "a", "2"), -1);
  EXPECT_STREQ(getPropertyValue(table, "a"), "1");
}

TEST_F(Table, removalMovesLaterPairsDown) {
  EXPECT_EQ(removeProperty(t.req, table, "b", "any"), 2);
  EXPECT_STREQ(table->entries[1].key, "c");
  EXPECT_EQ(removeProperty(t.req, table, "absent", "1"), 2);
  for (const int left : {1, 0, 0})
    EXPECT_EQ(removePropertyByIndex(t.req, table, 0), left);
}

TEST_F(Table, fullTableStillReplacesButTakesNoMore) {
  for (int i = table->count; i < kMaxProperties; ++i)
    EXPECT_EQ(setProperty(t.req, table, std::to_string(i).c_str(), "1"), i);
  EXPECT_EQ(setProperty(t.req, table, "c", "2"), 2);
  EXPECT_EQ(setProperty(t.req, table, "new", "1"), -1);
  EXPECT_EQ(removeProperty(t.req, table, "new", "1"), -1);
  EXPECT_EQ(t.logged("propertyTable full when trying to add new = 1"), 2);
  EXPECT_EQ(removePropertyByIndex(t.req, table, kMaxProperties - 1), kMaxProperties - 1);
}
