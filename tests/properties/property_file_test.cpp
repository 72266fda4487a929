#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "properties/vesk_property.h"
#include "support/recorded_request.h"

// All pairs as "key=value;" with the bytes as they are.
static std::string pairsOf(const propertyTable* table) {
  std::string text;
  for (std::int32_t i = 0; table && i < table->count; ++i)
    text += std::string(table->entries[i].key) + "=" + table->entries[i].value + ";";
  return text;
}

TEST(parseProperties, readsItsSyntaxByteByByte) {
  // Text, pairs, and how many lines without a value are reported.
  const std::tuple<const char*, const char*, int, const char*> rows[] = {
      {"", "", 0, "an empty text is an empty table"},
      {"a=1\r\nb=2\nc=3\r\n", "a=1;b=2;c=3;", 0, "both line ends"},
      {"\n\r\n a = 1 ", " a = 1 ;", 0, "blank lines; blanks are not trimmed"},
      {"a=b=c", "a=b=c;", 0, "the first '=' separates"},
      {"=a=b", "=a=b;", 0, "the first byte belongs to the key"},
      {"==", "==;", 0, "so this is the key '=' with an empty value"},
      {"=\na=1", "a=1;", 1, "and this a key '=' with none"},
      {"a", "", 0, "dropped without a report at the end"},
      {"a\nb\rc=2", "c=2;", 2, "reported with a line end"},
      {"# c=1\na=1\n#", "a=1;", 0, "comments, the last without an end"},
      {"# c\rx=1\n #a=1", " #a=1;", 0, "from the first byte to the LF"},
      {"a=x\\\\y\\:z\\n", "a=x\\y:zn;", 0, "a backslash protects any byte"},
      {"a=x\\\nb=2", "a=x;b=2;", 0, "and joins no lines"},
      {"a=x\\", "a=x;", 0, "nor looks behind the end"},
      {"a=x\\\r\nb=2", "a=x\r;b=2;", 0, "but protects a CR"},
      {"a=x\r\r\nb=2", "a=x\r;b=2;", 0, "two CRs leave one"},
      {"a=x\r\r\r\nb=2", "a=x\r;b=2;", 0, "as do three"},
      {"a=x\rb=2\nc=3", "a=x;c=3;", 1, "a lone CR loses the byte behind it"},
      {"a=x\r", "a=x;", 0, "and stops at the end of the text"},
      {"a=\x1A\n#\x1A\na=2\n\032b=2", "a=\x1A;a=2;", 0, "0x1A ends at a line start"},
  };
  for (const auto& [text, pairs, reported, why] : rows) {
    RecordedRequest t;
    propertyTable* table = parseProperties(t.req, text);
    EXPECT_EQ(pairsOf(table), pairs) << why;
    EXPECT_EQ(t.traced("has no value. skipping."), reported) << why;
    freeProperties(t.req, table);
    EXPECT_EQ(t.permBlocks, 0) << why;
  }
}

// Half a set would pass for a whole one.
TEST(parseProperties, givesNothingWhenMemoryRunsOutOnTheWay) {
  for (int failing = 1; failing <= 5; ++failing) {
    RecordedRequest t;
    t.failAllocation = failing;
    EXPECT_EQ(parseProperties(t.req, "a=1\nb=2\n"), nullptr) << failing;
    EXPECT_EQ(t.permBlocks, 0) << failing;
  }
}

TEST(loadProperties, readsAFileWholeOrSaysOnceWhyNot) {
  RecordedRequest t;
  char path[] = "/tmp/vesk-property-XXXXXX";
  const int file = mkstemp(path);
  EXPECT_EQ(loadProperties(t.req, path), nullptr);
  EXPECT_EQ(t.logLines.size(), 0u) << t.all();
  ASSERT_EQ(write(file, "a=1\nb=2", 7), 7);
  for (const int failing : {1, 2}) {
    t.failAllocation = t.allocations + failing;
    EXPECT_EQ(loadProperties(t.req, path), nullptr);
  }
  propertyTable* table = loadProperties(t.req, path);
  EXPECT_EQ(pairsOf(table), "a=1;b=2;");
  freeProperties(t.req, table);
  table = loadProperties1(path);
  EXPECT_EQ(pairsOf(table), "a=1;b=2;");
  freeProperties1(table);
  (void)close(file);
  (void)unlink(path);

  EXPECT_EQ(loadProperties(t.req, "/tmp"), nullptr);
  EXPECT_EQ(t.logged("could not read data in /tmp"), 1);
  EXPECT_EQ(loadProperties(t.req, path), nullptr);
  EXPECT_EQ(t.logged(std::string("could not open ") + path + ": No such file"), 1);
  EXPECT_EQ(t.leaks() + t.permBlocks, 0);
}
