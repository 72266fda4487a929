#include "maptable/server_choice.h"

#include <gtest/gtest.h>

#include "proxy/vesk_proxy.h"

// All other choices are told by the selection that makes them.
TEST(serverChoice, untriedIsInTheListAndInServiceAndHasNotFailed) {
  constexpr std::uint32_t kActive[] = {0, 1, 1, 1};
  ServerState servers[] = {{1, "", true, false, false},   // not in the list
                           {1, "", false, false, false},  // out of service
                           {1, "", true, true, false},    // has failed
                           {1, "", true, false, false}};
  ChoiceQuestion question{};
  question.count = 4;
  question.active = kActive;
  question.servers = servers;
  EXPECT_EQ(chooseUntried(question).position, 3);
  servers[3].failed = true;
  EXPECT_EQ(chooseUntried(question).reason, ChoiceReason::noneUntried);
}

// The asker has left drained servers out of `active`; here is what that alone wouldn't
// do.
TEST(serverChoice, drainedServerKeepsItsSessionsAndGetsNothingElse) {
  constexpr std::uint32_t kActive[] = {0, 1};
  ServerState servers[] = {{1, "s001", true, false, true},
                           {1, "s002", false, false, false}};
  ChoiceQuestion question{};
  question.count = 2;
  question.active = kActive;
  question.servers = servers;
  question.drains = true;
  question.algorithm = BALANCE_ROUNDROBIN;
  question.sticky = true;
  question.cursor = -1;

  EXPECT_TRUE(readsServers(question));
  EXPECT_EQ(chooseServer(question).position, 1) << "a new request";
  question.sessionId = "s001xyz";
  EXPECT_EQ(chooseServer(question).position, 0) << "its own session";
  question.sessionId = "s002xyzTRs001";
  EXPECT_EQ(chooseServer(question).reason, ChoiceReason::rotation) << "a buddy's session";

  question.count = 1;
  EXPECT_EQ(chooseServer(question).position, -1) << "the only server, another's session";
  question.sessionId = "s001xyz";
  EXPECT_EQ(chooseServer(question).position, 0) << "the only server, its own session";
}
