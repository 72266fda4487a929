#include "status/explain.h"

#include <cstdlib>

#include "maptable/fake_cluster.h"
#include "status/explain_words.h"

class Explaining : public MapTable {
 protected:
  // "0" and "1" for the servers "0:1" and "1:1", and what the explanation says of each.
  std::string attempts(const Explanation& explained) {
    std::string told;
    for (int i = 0; i < explained.attemptCount; ++i) {
      const ExplainedAttempt& attempt = explained.attempts[i];
      told += explained.servers[attempt.server].name[0];
      told += std::string(":") + wordsOf(attempt.reason).word + " ";
    }
    return told + wordsOf(explained.end).word;
  }

  Explanation* explain(const char* uri) {
    t.req->uri = uri;
    return explainRequest(table, t.req);
  }
};

TEST_F(Explaining, eachMappingThatFailsSaysWhy) {
  join("0:1", "//h/a/b*=0\n/a/b*.do=1\n/a/b=2\n/a*x*=3\n*.jsp=4");
  (void)table->ignoreSuffixMap(table, t.req, 1);
  constexpr const char* kRows[][3] = {
      // The URI, the host, the word of each mapping that was looked at.
      {"/a/b/c", "h", "matched "},
      {"/a/b/c", "other", "host tail matched "},
      {"/a/b/c;x=.do", nullptr, "host path-parameters matched "},
      {"/a/bc", nullptr, "host boundary boundary tail suffix-ignored "},
      {"/z.jsp", nullptr, "host prefix prefix boundary suffix-ignored "},
  };
  for (const auto& [uri, host, expected] : kRows) {
    t.variables.clear();
    if (host) t.variables["HOST"] = host;
    Explanation* explained = explain(uri);
    std::string words;
    for (int i = 0; i < explained->lookedAt; ++i)
      words += std::string(wordsOf(explained->mappings[i].match).word) + " ";
    EXPECT_EQ(words, expected) << uri;
    EXPECT_EQ(explained->winner, table->filterRequest(table, t.req, 1)) << uri;
    t.req->free(t.req, explained);
  }
}

// The code, weights, who is in service and active, the session, and what is told.
struct ServersRow {
  const char* why;
  std::uint32_t algorithm;
  std::vector<std::int64_t> weights;
  const char* active;
  const char* cookie;
  const char* expected;
};

static const ServersRow kServers[] = {
    {"in turn",
     1,
     {1, 1, 1},
     "111",
     nullptr,
     "0:rotation 1:rotation 2:rotation nobody-left"},
    {"weights in turn",
     2,
     {2, 1},
     "11",
     nullptr,
     "0:weighted-rotation 1:weighted-rotation nobody-left"},
    {"from the largest down",
     4,
     {1, 3, 2},
     "111",
     nullptr,
     "1:largest-weight 2:largest-weight 0:largest-weight nobody-left"},
    {"a draw", 5, {1, 1}, "11", nullptr, "drawn"},
    {"no chance in it", 5, {0, 7}, "11", nullptr, "1:weight-drawn nobody-left"},
    {"the owner, then its buddy",
     1,
     {1, 1, 1},
     "111",
     "JSESSIONID=id-1abcdTRid-2",
     "1:session-owner 2:session-buddy 0:rotation nobody-left"},
    {"a broken session",
     3,
     {1, 1},
     "10",
     "JSESSIONID=id-1",
     "0:smallest-weight nobody-left"},
    {"nobody is active", 1, {1, 1}, "00", nullptr, "nobody-active"},
};

TEST_F(Explaining, attemptsAreThoseThatTheRoadMakes) {
  constexpr const char* kIds[] = {"id-0", "id-1", "id-2"};
  for (const ServersRow& row : kServers) {
    SCOPED_TRACE(row.why);
    makeTable(nullptr, nullptr);
    setClustered(table);
    cluster.forwarded.clear();
    t.variables.clear();
    if (row.cookie) t.variables["cookie"] = row.cookie;
    for (std::size_t i = 0; i < row.weights.size(); ++i) {
      const std::string name = std::to_string(i) + ":1";
      cluster[name].algorithm = row.algorithm;
      cluster[name].weight = row.weights[i];
      cluster[name].sticky = 1;
      cluster[name].replicationId = kIds[i];
      cluster[name].up = true;
      veskProxy* proxy = join(name);
      if (row.active[i] == '0') {
        setProxyActive(proxy, false);
        remove(proxy);
      }
      cluster[name].up = false;
      cluster[name].replies = {{ECONNREFUSED, -1, true, false}};
    }
    std::srand(1);
    Explanation* explained = explain("/demo/x");
    EXPECT_EQ(attempts(*explained), row.expected);
    const int next = std::rand();
    std::srand(1);
    EXPECT_EQ(std::rand(), next);
    std::string expected;
    for (int i = 0; i < explained->attemptCount; ++i)
      expected +=
          std::string(explained->servers[explained->attempts[i].server].name) + " ";
    const bool drawn = explained->end == AttemptsEnd::drawn;
    t.req->free(t.req, explained);

    EXPECT_EQ(table->handleRequest(table, t.req, nullptr), kRequestFailed);
    if (!drawn) {
      EXPECT_EQ(cluster.forwarded, expected);
    }
  }
}

TEST_F(Explaining, sessionIsShortenedAndItsServersAreMarked) {
  cluster["0:1"].sticky = cluster["1:1"].sticky = 1;
  cluster["0:1"].replicationId = "ownr";
  cluster["1:1"].replicationId = "budy";
  setProxyActive(join("0:1"), false);
  join("1:1");
  t.variables["cookie"] = "JSESSIONID=ownr-secretsTRnonebudy*abc; b=2";
  t.logLines.clear();
  const std::int64_t cursor = table->mappingBalances[0]->cursor;
  Explanation* explained = explain("/demo");
  EXPECT_STREQ(explained->session, "ownr-sec...");
  EXPECT_TRUE(explained->servers[0].ownsSession && !explained->servers[0].inService);
  EXPECT_EQ(explained->servers[1].buddyRank, 2);
  EXPECT_EQ(explained->anyBuddyRank, 3);
  EXPECT_EQ(explained->choice.absentOwner, 0);
  EXPECT_EQ(attempts(*explained), "1:session-buddy 0:rotation nobody-left");
  EXPECT_EQ(table->mappingBalances[0]->cursor, cursor);
  EXPECT_TRUE(t.logLines.empty());
  EXPECT_EQ(cluster["0:1"].pings + cluster["1:1"].refreshes, 0);
  t.req->free(t.req, explained);
  t.failAllocation = t.allocations + 2;  // the session's own comes first
  EXPECT_EQ(explain("/demo"), nullptr);
}
