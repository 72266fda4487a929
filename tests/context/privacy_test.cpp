#include "context/privacy.h"

#include <gtest/gtest.h>

#include <string>

#include "context/guards.h"

TEST(privacy, sessionsAreCutWhereverTheyStandInALine) {
  const char* const rows[][2] = {
      {"uri /a;JSESSIONID=s000d1d1TRs001?x=1", "uri /a;JSESSIONID=s000d1d1...?x=1"},
      {"a=1; jsessionid=s000d1d1f00d; b=2", "a=1; jsessionid=s000d1d1...; b=2"},
      {"JSESSIONID=012345678/JSESSIONID=0123456789\"", "JSESSIONID=01234567...\""},
      {"JSESSIONID=01234567 JSESSIONID=0123456789",
       "JSESSIONID=01234567 JSESSIONID=01234567.."},
      {"JSESSIONID=\\\"0123456789abc\\\"", "JSESSIONID=\\\"01234567...\\\""},
      {"JSESSIONID JSESSIONID= JSESSIONID", "JSESSIONID JSESSIONID= JSESSIONID"},
      {"nothing", "nothing"},
  };
  for (const auto& [line, shown] : rows) {
    std::string text = line;
    hideSessionIds(text.data());
    EXPECT_STREQ(text.c_str(), shown);
  }
}

TEST(privacy, secretsAreShownOnlyWithoutTheGuard) {
  vesk_request req{};
  char buffer[kShownSessionSize];
  for (const bool on : {false, true}) {
    req.guards = on ? kAllGuards : kNoGuards;
    EXPECT_STREQ(shownSession(&req, "s000d1d1TRs001; auth=SECRET", buffer),
                 on ? "s000d1d1..." : "s000d1d1TRs001; auth=SECRET");
    for (const char* name :
         {"Cookie", "SET_COOKIE", "authorization", "Proxy-Authorization"})
      EXPECT_STREQ(shownValue(&req, name, "a=SECRET"), on ? "***" : "a=SECRET") << name;
    EXPECT_STREQ(shownValue(&req, "cookies", "yes"), "yes");
  }
}
