#include "patterns/uri_pattern.h"

#include <gtest/gtest.h>

#include <tuple>

constexpr std::tuple<const char*, int, int> kLengths[] = {
    {"", 0, 0},           {"*", 0, 0},         {"/foo", 4, 0},       {"/foo*", 4, 0},
    {"/foo*.do", 4, 3},   {"*.jsp", 0, 4},     {"*x*", 0, 2},        {"//host", 0, 0},
    {"//host*", 0, 0},    {"//host/a*", 2, 0}, {"//h*st/a*b", 2, 6}, {"//", 0, 0},
    {"//host/a/b", 4, 0},
};

TEST(uriPattern, lengthsDecideTheOrder) {
  for (const auto& [pattern, prefix, ext] : kLengths) {
    EXPECT_EQ(prefixlen(pattern), prefix) << pattern;
    EXPECT_EQ(extlen(pattern), ext) << pattern;
  }
}
