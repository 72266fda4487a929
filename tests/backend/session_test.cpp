#include <gtest/gtest.h>

#include <array>
#include <set>

#include "backend/session_id.h"
#include "backend/session_store.h"
#include "request_block.h"

namespace backend_test {

TEST(sessionId, isTakenApartAndPutTogether) {
  const auto told = [](const char* text) {
    const auto session = backend::parseSessionId(text);
    EXPECT_EQ(session ? sessionIdText(*session) : text, text);
    return session ? session->owner + "|" + session->id + "|" + session->buddies : "";
  };
  EXPECT_EQ(told("A001abcTRB002****"), "A001|abc|B002****");
  EXPECT_EQ(told("A001abc"), "A001|abc|");
  EXPECT_EQ(told("A001abcTRTRTR"), "A001|abc|TRTR");
  for (const char* bad : {"A001", "A001TRB002", "A001a.b", "A0\r\nabc", ""}) {
    EXPECT_EQ(told(bad), "") << bad;
  }
}

// Two servers of one machine must not own each other's sessions.
TEST(sessionId, eachPortGivesAnotherRepId) {
  std::set<std::string> seen;
  for (int port = 0; port <= 65535; ++port) seen.insert(backend::repIdOfPort(port));
  EXPECT_EQ(seen.size(), 65536U);
  EXPECT_EQ(backend::repIdOfPort(80), "0080");
  EXPECT_EQ(seen.begin()->size() + seen.rbegin()->size(), 8U);
}

// The cookie, another header of that name, what the web server's side found, and
// the session of the request: empty when there is none.
TEST(sessionId, isFoundInTheRequest) {
  const std::array<const char*, 4> rows[] = {
      {"a=b; JSESSIONID=A001one; c=d", "", "", "one"},
      {"XJSESSIONID=A001no; JSESSIONID=A001yes", "", "A001no", "yes"},
      {"a=b", "JSESSIONID=A001two", "", "two"},
      {"", "", "A001three; x=y", "three"},
      {"", "", "A001four/x", "four"},
      {"JSESSIONID=??", "", "A001five", "five"},
      {"JSESSIONID", "JSESSIONID=", "", ""}};
  for (const auto& [cookie, other, item, id] : rows) {
    const Texts headers = {{"cookie", cookie}, {"cookie", other}};
    const std::string block = blockOf({"/", "", headers, {}, item});
    const auto session = backend::sessionIdOf(backend::parseServiceRequest(block));
    EXPECT_EQ(session ? session->id : "", id) << cookie;
  }
}

TEST(sessionStore, forgetsTheOneNotUsedForLongest) {
  backend::SessionStore store;
  (void)store.use("first");
  (void)store.use("second");
  EXPECT_EQ(store.use("first"), 2);
  for (std::size_t i = 2; i <= backend::kMaxSessions; ++i) {
    (void)store.use(std::to_string(i));
  }
  EXPECT_EQ(store.peek("first"), 2);
  EXPECT_EQ(store.peek("second"), std::nullopt);
  store.forget("first");
  EXPECT_EQ(store.use("first"), 1);
}

}  // namespace backend_test
