#include "maptable/server_choice.h"

#include <gtest/gtest.h>

#include <tuple>

#include "proxy/vesk_proxy.h"

using Why = ChoiceReason;

// The algorithm, the session, the position, the reason, whether a session was broken.
// Servers "aaaa" and "bbbb" of weights 3 and 4: the second one is out of service.
constexpr std::tuple<std::uint32_t, const char*, int, Why, bool> kRows[] = {
    {BALANCE_ROUNDROBIN, nullptr, 0, Why::rotation, false},
    {BALANCE_ROUNDROBIN_WEIGHTED, nullptr, 0, Why::weightedRotation, false},
    {BALANCE_MIN, nullptr, 0, Why::smallestWeight, false},
    {BALANCE_MAX, nullptr, 1, Why::largestWeight, false},
    {BALANCE_RANDOM_WEIGHTED, nullptr, -1, Why::drawNeeded, false},
    {BALANCE_MAX, "aaaa", 0, Why::sessionOwner, false},
    {BALANCE_MAX, "bbbbTRaaaa", 0, Why::sessionBuddy, false},
    {BALANCE_MAX, "bbbb", 1, Why::largestWeight, true},
    {BALANCE_RANDOM_WEIGHTED, "cccc", -1, Why::drawNeeded, true},
};

TEST(serverChoice, tellsWhy) {
  std::uint32_t active[] = {1, 1};
  constexpr std::uint64_t kSums[] = {3, 7};
  ServerState servers[] = {{3, "aaaa", true, false}, {4, "bbbb", false, false}};
  ChoiceQuestion question{2, active, servers, 0, true, -1, kSums, kNotDrawn, nullptr};
  for (const auto& [algorithm, session, position, reason, broken] : kRows) {
    question.algorithm = algorithm;
    question.sessionId = session;
    const Choice choice = chooseServer(question);
    EXPECT_EQ(choice.position, position) << algorithm;
    EXPECT_EQ(choice.reason, reason) << algorithm;
    EXPECT_EQ(choice.sessionBroken, broken) << algorithm;
  }
  question.drawn = 3;
  EXPECT_EQ(chooseServer(question).position, 1);
  EXPECT_EQ(chooseUntried(question).position, 0);
  active[0] = 0;
  EXPECT_EQ(chooseUntried(question).reason, Why::noneUntried);
  active[0] = 1;
  servers[0].failed = true;
  EXPECT_EQ(chooseUntried(question).reason, Why::noneUntried);
  question.count = 1;
  EXPECT_EQ(chooseServer(question).reason, Why::onlyServer);
}
