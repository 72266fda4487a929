#include "properties/property_expansion.h"
#include "context/memory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

static int untilFailure;  // allocations until one fails; 0: never
static int allocations;

static bool fails() {
  ++allocations;
  return untilFailure > 0 && --untilFailure == 0;
}

extern "C" {
void* __real_malloc(size_t);
char* __real_strdup(const char*);
void* __wrap_malloc(size_t size) {
  return fails() ? nullptr : __real_malloc(size);
}
char* __wrap_strdup(const char* text) {
  return fails() ? nullptr : __real_strdup(text);
}
}

class Expansion : public testing::Test {
 protected:
  ~Expansion() override {
    for (propertyTable* used : {table, defaults, roots}) freeProperties1(used);
  }
  static std::string taken(char* text) {
    if (!text) return "<null>";
    std::string copy = text;
    doFree(nullptr, text);
    return copy;
  }
  propertyTable* table = parseProperties1(
      "x=1{y}\ny=2\nspace name=s\na{b=odd\nd={default}\ne={default}\n"
      "self=s{self}\nping=<{pong}\npong=>{ping}\nopen={\n"
      "vesk.server.name=plain\nroot={vesk.server.rootdir}/{vesk.server.name}\n");
  propertyTable* defaults = parseProperties1("e={y}\nonly=o\ndefault=D\n");
  propertyTable* roots = parseProperties1("s1=/srv/{y}\n");
};

TEST_F(Expansion, replacesReferences) {
  const char* const rows[][3] = {
      {nullptr, "", "null counts as empty"},
      {"a{nope}b{}", "ab", "an unknown one vanishes, as does an empty name"},
      {"{x}{y}", "122", "from the left, and values are expanded"},
      {"}{y}{x", "}2{x", "a '}' alone is text, and an open one stays"},
      {"{space name}", "s", "blanks belong to the name"},
      {"{a{b}}", "odd}", "up to the first '}'"},
      {"{open}y}", "2", "a value's brace pairs with a later one"},
      {"{only}", "o", "from the defaults"},
      {"{e}", "2", "a value that asks for the default"},
      {"{default}", "D", "within a value it is an ordinary name"},
      {"{vesk.server.name}", "plain", "reserved only in expand_vars2"},
  };
  for (const auto& [value, expanded, why] : rows)
    EXPECT_EQ(taken(expand_vars(value, table, defaults)), expanded) << why;
}

TEST_F(Expansion, looksKeysUpThroughTheDefaults) {
  EXPECT_EQ(taken(getPropertyValue2(table, defaults, "e")), "2");
  EXPECT_EQ(taken(getPropertyValue2(table, defaults, "d")), "<null>");
  EXPECT_EQ(taken(getPropertyValue2(table, nullptr, "d")), "");
  EXPECT_EQ(taken(getPropertyValue2(table, nullptr, "only")), "<null>");
}

TEST_F(Expansion, knowsTheNamedServer) {
  EXPECT_EQ(taken(getPropertyValue3(table, defaults, roots, "root", "s1")), "/srv/2/s1");
  EXPECT_EQ(taken(getPropertyValue3(table, defaults, roots, "root", "s2")), "/s2");
  EXPECT_EQ(taken(expand_vars2("{root}!", table, defaults, roots, nullptr)), "/!");
  EXPECT_EQ(taken(expand_vars2("{root}!", table, defaults, nullptr, "s1")), "/s1!");
}

TEST_F(Expansion, ofAValueThatRefersToItselfEnds) {
  EXPECT_EQ(taken(getPropertyValue2(table, nullptr, "self")),
            std::string(kMaxExpansionDepth + 1, 's'));
  EXPECT_EQ(taken(getPropertyValue2(table, nullptr, "ping")).substr(0, 4), "<><>");
}

TEST_F(Expansion, ofAValueThatGrowsStaysWithinTheLimits) {
  ASSERT_GE(setProperty1(table, "twice", "{twice}0123456789{twice}"), 0);
  EXPECT_LE(taken(getPropertyValue2(table, nullptr, "twice")).size(), 65536u);

  // Ten references to 10,000 bytes: the seventh doesn't fit any more.
  ASSERT_GE(setProperty1(table, "big", std::string(10000, 'b').c_str()), 0);
  std::string ten;
  for (int i = 0; i < 10; ++i) ten += "{big}";
  EXPECT_EQ(taken(expand_vars(ten.c_str(), table, nullptr)), std::string(60000, 'b'));

  std::string many;
  for (int i = 0; i < kMaxExpansionLookups + 5; ++i) many += "{y}.";
  const std::string most = taken(expand_vars(many.c_str(), table, nullptr));
  EXPECT_EQ(most.substr(0, 4), "2.2.");
  EXPECT_EQ(most.substr(most.size() - 7), "2......");
}

TEST_F(Expansion, withoutMemoryGivesNullAndKeepsNothing) {
  allocations = 0;
  EXPECT_EQ(taken(getPropertyValue3(table, defaults, roots, "root", "s1")), "/srv/2/s1");
  const int needed = allocations;
  ASSERT_GT(needed, 4);
  for (int failing = 1; failing <= needed; ++failing) {
    untilFailure = failing;
    char* text = getPropertyValue3(table, defaults, roots, "root", "s1");
    untilFailure = 0;
    EXPECT_EQ(text, nullptr) << failing;
  }
}
