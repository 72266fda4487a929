#include "maptable/server_choice.h"

#include <gtest/gtest.h>

#include "proxy/vesk_proxy.h"

// All other choices are told by the selection that makes them.
TEST(serverChoice, untriedIsInTheListAndInServiceAndHasNotFailed) {
  constexpr std::uint32_t kActive[] = {0, 1, 1, 1};
  ServerState servers[] = {{1, "", true, false},   // not in the list
                           {1, "", false, false},  // out of service
                           {1, "", true, true},    // has failed
                           {1, "", true, false}};
  const ChoiceQuestion question{4,       kActive,   servers, BALANCE_ROUNDROBIN, true, -1,
                                nullptr, kNotDrawn, nullptr};
  EXPECT_EQ(chooseUntried(question).position, 3);
  servers[3].failed = true;
  EXPECT_EQ(chooseUntried(question).reason, ChoiceReason::noneUntried);
}
