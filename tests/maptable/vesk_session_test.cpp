#include "maptable/vesk_session.h"

#include "fake_cluster.h"

TEST(session, isReadFromCookieOrUri) {
  // The cookie, the URI and the session, each null for none.
  constexpr const char* kRows[][4] = {
      {"no name", nullptr, "/a", nullptr},
      {"up to the next ';'", nullptr, "/a;JSESSIONID=abcd;x=1", "abcd"},
      {"any separator", nullptr, "/a?JSESSIONID+abcd", "abcd"},
      {"the URI ends in the name", nullptr, "/a;JSESSIONID", nullptr},
      {"a ';' in place of the separator", nullptr, "/a;JSESSIONID;x=1", nullptr},
      {"empty value", nullptr, "/a;JSESSIONID=;x=1", ""},
      {"empty value at the end", nullptr, "/a;JSESSIONID=", ""},
      {"upper case only", nullptr, "/a;jsessionid=abcd", nullptr},
      {"a cookie goes first", "JSESSIONID=wxyz", "/a;JSESSIONID=abcd", "wxyz"},
      {"with all that follows", "a=1; JSESSIONID=wxyz; b=2", "/a", "wxyz; b=2"},
      {"a cookie without it hides the URI", "a=1", "/a;JSESSIONID=abcd", nullptr},
      {"the cookie ends in the name", "JSESSIONID", "/a", nullptr},
      {"no URI", nullptr, nullptr, nullptr}};
  for (const auto& [why, cookie, uri, expected] : kRows) {
    RecordedRequest t;
    if (cookie) t.variables["cookie"] = cookie;
    t.req->uri = uri;
    char* session = getSessionId(t.req);
    EXPECT_STREQ(session, expected) << why;
    if (session) t.req->free(t.req, session);
    EXPECT_EQ(t.leaks(), 0);
  }
}

TEST(session, buddiesAreFourBytesEach) {
  const std::pair<std::string, std::string> rows[] = {{"abcd", ""},
                                                      {"abcdTRefg", ""},
                                                      {"abcdTRefgh", "efgh "},
                                                      {"abTRcd*xyz12", "cd*x yz12 "},
                                                      {"abTRefgh*xy", "efgh "},
                                                      {"TRabcdTRefgh", "abcd TRef "}};
  for (const auto& [id, expected] : rows) {
    std::string buddies;
    for (const char* buddy = getNextBuddy(id.c_str(), nullptr); buddy;
         buddy = getNextBuddy(id.c_str(), buddy))
      buddies += std::string(buddy, kReplicationIdLength) + " ";
    EXPECT_EQ(buddies, expected) << id;
  }
}
