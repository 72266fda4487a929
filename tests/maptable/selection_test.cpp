#include "maptable/selection.h"
#include "maptable/last_ditch.h"

#include <cstdlib>
#include <cstring>

#include "fake_cluster.h"

// A mapping of servers "0:1", "1:1" ..., chosen from without a dispatch.
class Selecting : public MapTable {
 protected:
  // Makes the table anew.
  void makeServers(std::uint32_t algorithm, const std::vector<std::int64_t>& weights) {
    makeTable(nullptr, nullptr);
    for (std::size_t i = 0; i < weights.size(); ++i) {
      FakeServer& server = cluster[std::to_string(i) + ":1"];
      server.algorithm = algorithm;
      server.weight = weights[i];
      server.sticky = 1;
      server.replicationId = i < ids.size() ? ids[i] : nullptr;
      join(std::to_string(i) + ":1");
    }
    list = table->mappingProxies[0];
    balance = table->mappingBalances[0];
  }
  // Positions of that many choices; '-' for none.
  std::string choose(int count) {
    std::string chosen;
    for (int i = 0; i < count; ++i) {
      const veskProxy* proxy = selectProxy(table, t.req, 0);
      chosen += proxy ? proxy->name[0] : '-';
    }
    return chosen;
  }

  std::vector<const char*> ids;
  std::string session = "none";
  proxyList* list = nullptr;
  mappingBalance* balance = nullptr;
};

// The code, the weights, the entries that are active, the cursor before and
// after, the choices.
using W = std::vector<std::int64_t>;
static const std::tuple<const char*, unsigned, W, const char*, int, int, const char*>
    kChoices[] = {{"in turn", 1, {1, 1, 1}, "111", -1, 0, "0120"},
                  {"only the active", 1, {1, 1, 1}, "001", 0, 2, "22"},
                  {"none active: one full turn", 1, {1, 1, 1}, "000", -1, 2, "-"},
                  {"an unknown code rotates", 77, {1, 1}, "11", -1, 0, "010"},
                  {"as many turns as weight", 2, {2, 1}, "11", -1, 1, "001001"},
                  {"weight 0 never moves on", 2, {0, 1}, "11", -1, -1, "00000"},
                  {"none active, weighted", 2, {2, 1}, "00", 0, 0, "-"},
                  {"skips the inactive", 2, {2, 1, 2}, "101", -1, 0, "0022002"},
                  {"smallest", 3, {5, 3, 4}, "111", -1, 1, "11"},
                  {"first of equals", 3, {3, 3}, "11", -1, 0, "00"},
                  {"not the inactive", 3, {5, 3, 4}, "101", -1, 2, "22"},
                  {"from the bound on", 3, {0x7fffffff, 0xffffffff}, "11", -1, -1, "-"},
                  {"below 0 is small", 3, {1, -5}, "11", -1, 1, "1"},
                  {"largest", 4, {5, 0xffffffff, 7}, "111", -1, 1, "11"},
                  {"first of equals", 4, {3, 3}, "11", -1, 0, "00"},
                  {"nothing at 0 or below", 4, {0, -1}, "11", -1, -1, "-"},
                  {"nothing to draw from", 5, {0, -7}, "11", -1, -1, "--"},
                  {"none active to draw from", 5, {1, 1}, "00", -1, -1, "-"},
                  {"only one has a weight", 5, {0, 9, -1}, "111", -1, -1, "1111"},
                  {"no overflow", 5, {INT64_MIN, INT64_MAX}, "11", -1, -1, "11"}};

TEST_F(Selecting, algorithmsChooseInSequence) {
  for (const auto& [why, algorithm, weights, active, cursor, cursorAfter, chosen] :
       kChoices) {
    makeServers(algorithm, weights);
    for (std::size_t i = 0; i < weights.size(); ++i) list->active[i] = active[i] == '1';
    balance->cursor = cursor;
    EXPECT_EQ(choose(static_cast<int>(std::strlen(chosen))), chosen) << why;
    EXPECT_EQ(balance->cursor, cursorAfter) << why;
  }
}

// The law: each entry owns as many consecutive numbers as its weight.
TEST_F(Selecting, randomPicksTheOwnerOfTheDrawnNumber) {
  makeServers(BALANCE_RANDOM_WEIGHTED, {3, 0, 4, -2, 2});
  const std::string slots = "000222244";
  std::srand(7);
  std::string expected;
  for (int i = 0; i < 200; ++i)
    expected += slots[static_cast<std::size_t>(std::rand()) % slots.size()];
  std::srand(7);
  EXPECT_EQ(choose(200), expected);
}

TEST_F(Selecting, randomSharesByWeightAndTakesNoMoreMemoryForIt) {
  makeServers(BALANCE_RANDOM_WEIGHTED, {0xffffffff, 0x7fffffff, 0x7fffffff});
  std::srand(1);
  const std::int64_t before = t.allocations;
  std::map<char, double> shares;
  for (const char server : choose(4000)) ++shares[server];
  EXPECT_LE(t.allocations, before + 1);
  EXPECT_NEAR(shares['0'], 2000, 150);
  EXPECT_NEAR(shares['1'], 1000, 150);
}

TEST_F(Selecting, newWeightsCountFromTheNextRebuild) {
  makeServers(BALANCE_RANDOM_WEIGHTED, {0, 0});
  t.failAllocation = t.allocations + 1;
  EXPECT_EQ(choose(2), "--");  // without memory, then without a weight
  setProxyWeight(list->proxies[0], 1);
  EXPECT_EQ(choose(3), "000");  // what was nothing is looked at again
  setProxyWeight(list->proxies[0], 0);
  setProxyWeight(list->proxies[1], 1);
  EXPECT_EQ(choose(3), "000");
  balance->slotsStale = 1;
  EXPECT_EQ(choose(3), "111");
  balance->slotsStale = 1;
  setProxyActive(list->proxies[1], false);  // decides for sessions only
  EXPECT_EQ(choose(1), "1");
  list->active[1] = 0;  // not tested again at the draw
  EXPECT_EQ(choose(1), "1");
}

TEST_F(Selecting, onlyServerIsChosenInAnyState) {
  makeServers(BALANCE_ROUNDROBIN, {1});
  list->active[0] = 0;
  setProxyActive(list->proxies[0], false);
  setProxyRetryTime(list->proxies[0], 5);
  t.req->sessionId = session.data();
  EXPECT_EQ(choose(1), "0");
  EXPECT_EQ(t.tracedE("0:1 selectProxy not reachable not active"), 1);
}

// The session, the ids and which are in service, the choice: '-' for a breakage.
using Ids = std::vector<const char*>;
static const std::tuple<const char*, std::string, Ids, const char*, std::string>
    kSessions[] = {
        {"the owner", "bbbbxTRcccc", {"aaaa", "bbbb", "cccc"}, "111", "1"},
        {"4 bytes count", "bbbbx", {"aaaa", "bbbbY", "cccc"}, "111", "1"},
        {"the first of two owners", "aaaa", {"bbbb", "aaaa", "aaaa"}, "111", "1"},
        {"a buddy", "bbbbxTRccccaaaa", {"aaaa", "bbbb", "cccc"}, "101", "2"},
        {"order of buddies", "bbbbxTRccccaaaa", {"aaaa", "bbbb", "cccc"}, "100", "0"},
        {"any buddy", "bbbbTR*xyz", {"aaaa", "bbbb", "cccc"}, "001", "2"},
        {"no buddy in service", "bbbbTRcccc", {"aaaa", "bbbb", "cccc"}, "100", "-"},
        {"no owner, no buddy", "ddddTRaaaa", {"aaaa", "bbbb", "cccc"}, "111", "-"},
        {"no replication id", "bbbbTR*xyz", {nullptr, "bbbb", nullptr}, "101", "0"},
        {"no replication id is no owner", "", {"", nullptr, nullptr}, "111", "-"},
        {"short ids that are equal", "bb", {"aaaa", "bb", "cccc"}, "111", "1"},
        {"short id of a buddy", "aaaaTRcccc", {"aaaa", "cc", "cccc"}, "011", "2"}};

TEST_F(Selecting, sessionStaysWithOwnerOrBuddy) {
  for (const auto& [why, id, serverIds, inService, expected] : kSessions) {
    ids = serverIds;
    makeServers(BALANCE_ROUNDROBIN, {1, 1, 1});
    session = id;
    t.req->sessionId = session.data();
    for (std::int32_t i = 0; i < list->count; ++i) {
      setProxyActive(list->proxies[i], inService[i] == '1');
      list->active[i] = 0;  // plays no part; the algorithm finds none
    }
    t.logLines.clear();
    t.traceELines.clear();
    EXPECT_EQ(choose(1), expected) << why;
    EXPECT_EQ(t.tracedE("Found sticky session host " + expected + ":1"),
              expected == "-" ? 0 : 1);
    EXPECT_EQ(t.logged("Sticky session breakage, a host for serving session " + id +
                       " not available.  Failing over to another server, but above "
                       "session is broken."),
              expected == "-" ? 1 : 0)
        << why;
  }
  balance->sticky = 0;  // no breakage without stickiness, nor without a session
  t.logLines.clear();
  EXPECT_EQ(choose(1), "-");
  balance->sticky = 1;
  t.req->sessionId = nullptr;
  EXPECT_EQ(choose(1), "-");
  EXPECT_EQ(t.logged(""), 0);
}

TEST_F(Selecting, lastDitchPingsWhatHasNotFailedYet) {
  makeServers(BALANCE_ROUNDROBIN, {1, 1, 1});
  failedList failed = {1, {list->proxies[0]}};
  for (std::int32_t i = 0; i < 3; ++i) remove(list->proxies[i]);
  cluster["1:1"].up = false;
  EXPECT_EQ(lastDitchFindReachableServer(table, t.req, 0, &failed), 0);
  EXPECT_EQ(names(*list), " [0:1] [1:1] 2:1");
  EXPECT_EQ(cluster["0:1"].pings, 0);
  EXPECT_EQ(t.logged("can't retrieve servers from server, no bootstrap specified."), 1);
  EXPECT_EQ(t.logged("1:1 reset proxy retry time to now since all servers for this "
                     "mapping are marked unreachable"),
            1);
  EXPECT_GT(getProxyRetryTime(list->proxies[1]), 0);
  EXPECT_EQ(getProxyRetryTime(list->proxies[2]), 0);

  for (const int i : {1, 2}) failed.proxies[failed.count++] = list->proxies[i];
  EXPECT_EQ(lastDitchFindReachableServer(table, t.req, 0, &failed), -1);
  EXPECT_EQ(cluster["2:1"].pings, 1);
  EXPECT_EQ(t.tracedE("couldn't find reachable server for /demo* map"), 1);
}

TEST_F(Selecting, failedTargetsTakeEveryServerOfAFullTable) {
  failedList failed{};
  std::vector<veskProxy> servers(kMaxProxies + 1);
  EXPECT_EQ(tryAnotherProxy(t.req, table, &failed, servers.data(), 1), 0);
  EXPECT_TRUE(t.traceELines.empty());  // no cluster, no word
  setClustered(table);
  for (std::int32_t i = 0; i < kMaxProxies; ++i) {
    veskProxy* server = &servers[static_cast<std::size_t>(i)];
    EXPECT_EQ(tryAnotherProxy(t.req, table, &failed, server, 0), 1);
    EXPECT_EQ(tryAnotherProxy(t.req, table, &failed, server, 1), 1);
    EXPECT_EQ(tryAnotherProxy(t.req, table, &failed, server, 1), 0);
  }
  EXPECT_EQ(failed.count, kMaxProxies);
  EXPECT_EQ(tryAnotherProxy(t.req, table, &failed, &servers[kMaxProxies], 1), 0);
}
