#include "context/guards.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

static std::string chosen(std::string_view value) {
  const GuardChoice choice = readGuards(value);
  std::string names;
  for (std::uint32_t i = 0; i < kGuardCount; ++i)
    if (choice.mask >> i & 1U) names += std::string(kGuards[i].name) + " ";
  return names + (choice.unknown.empty() ? "" : "? " + std::string(choice.unknown));
}

TEST(guards, optionNamesThemAndWordsBehindWin) {
  const std::string rest = "attempt partial replay comeback blame stall privacy idle ";
  const std::tuple<const char*, std::string, const char*> rows[] = {
      {"all", "latebytes identity " + rest + "deadline ", "every one"},
      {"none", "", "no one"},
      {"", "", "nor without a word"},
      {"idle, blame", "blame idle ", "names, in any order, blanks left out"},
      {"all,-latebytes,-identity,-deadline", rest, "all but these"},
      {"-idle,all,-all,idle", "idle ", "what stands later wins"},
      {"idle,spam,-egg,blame", "blame idle ? spam", "the first that is no name is told"},
      {"All", "? All", "case counts"},
      {"all,,", "latebytes identity " + rest + "deadline ", "an empty word is no word"},
  };
  for (const auto& [value, names, why] : rows) EXPECT_EQ(chosen(value), names) << why;
}
