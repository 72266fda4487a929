#include "maptable/cluster_update.h"

#include <gmock/gmock.h>

#include "fake_cluster.h"

// Server "a:1" answers, and knows the list.
class ClusterUpdating : public MapTable {
 protected:
  ClusterUpdating() : a(join("a:1")), own(cluster["a:1"]) {}
  void answer(std::int32_t sequence, const std::vector<std::string>& list,
              std::int32_t listSequence) {
    own.clustered = list;
    own.listSequence = listSequence;
    updateClusteredServers(table, t.req, a, sequence);
  }

  veskProxy* a;
  FakeServer& own;
};

TEST_F(ClusterUpdating, joinsReturnsAndRemoves) {
  veskProxy* gone = join("gone:1");
  remove(join("back:1"));
  cluster["new:1"].up = true;
  answer(3, {"a:1", "new:1", "back:1", "new:1"}, 4);
  EXPECT_EQ(names(table->masterList), " a:1 [gone:1] back:1 new:1");
  EXPECT_EQ(table->clusterSeq, 4);
  EXPECT_FALSE(isProxyActive(gone));
  EXPECT_EQ(cluster["back:1"].pings, 0);
  EXPECT_EQ(t.traced("Proxy a:1 already exists"), 0);  // left alone
  EXPECT_EQ(t.tracedE("a:1 cluster info is stale 3, refreshing ..."), 1);
  EXPECT_EQ(t.traced("Using sequence number 4 from a:1"), 1);
  EXPECT_EQ(t.tracedE("a:1 clusters updated using seq 4"), 1);
  EXPECT_EQ(t.logged("can't persist servers, no serverstore specified."), 1);
  EXPECT_EQ(cluster["gone:1"].flushes, 1);
  answer(5, {"b:1"}, 5);  // without the answering server, and none is removed twice
  EXPECT_EQ(names(table->masterList), " [a:1] [gone:1] [back:1] [new:1]");
  EXPECT_EQ(cluster["gone:1"].flushes, 1);
}

TEST_F(ClusterUpdating, sequenceRules) {
  // The number known, in the reply, with the list; lists fetched, the number then.
  constexpr std::tuple<const char*, int, int, int, int, int> kRows[] = {
      {"first", 0, 7, 7, 1, 7},
      {"equal", 7, 7, 8, 0, 7},
      {"0 never starts one", 7, 0, 8, 0, 7},
      {"lower is different", 7, 5, 5, 1, 5},
      {"the list's own number counts", 7, 8, 9, 1, 9},
      {"the list is applied already", 7, 8, 7, 1, 7},
      {"the list says 0", 7, 8, 0, 1, 7},
      {"the list says nothing", 7, 8, -1, 1, -1},
      {"negative is a number", -1, INT32_MIN, INT32_MIN, 1, INT32_MIN}};
  EXPECT_FALSE(isClustered(table));
  for (const auto& [why, known, replied, listed, lists, knownAfter] : kRows) {
    table->clusterSeq = known;
    own.lists = 0;
    answer(replied, {"a:1"}, listed);
    EXPECT_EQ(own.lists, lists) << why;
    EXPECT_EQ(table->clusterSeq, knownAfter) << why;
  }
  EXPECT_TRUE(isClustered(table));  // although it is the only server
}

TEST_F(ClusterUpdating, failedServerKeepsTheNumberOpen) {
  join("gone:1");
  table->clusterSeq = 2;
  answer(3, {"a:1", "down:1", "nocolon", "late:1"}, 3);
  EXPECT_EQ(table->clusterSeq, 0);
  EXPECT_EQ(t.tracedE("a:1 error updating clusters so seq is 0"), 1);
  EXPECT_EQ(names(table->masterList), " a:1 [gone:1]");
  EXPECT_EQ(cluster.destroyed, 3);
  cluster["down:1"].up = cluster["late:1"].up = true;
  answer(3, {"a:1", "down:1", "late:1"}, 3);
  EXPECT_EQ(table->clusterSeq, 3);
  EXPECT_EQ(names(table->masterList), " a:1 [gone:1] down:1 late:1");
}

TEST_F(ClusterUpdating, noListChangesNothing) {
  join("b:1");
  answer(3, {}, 3);
  own.up = false;
  answer(4, {"a:1"}, 4);
  EXPECT_EQ(t.tracedE("a:1 clustered-servers not updated"), 2);
  EXPECT_EQ(table->clusterSeq, 0);
  EXPECT_EQ(names(table->masterList), " a:1 b:1");
}

TEST_F(ClusterUpdating, twoHundredServersFillTheTable) {
  std::vector<std::string> list = {"a:1"};
  for (int i = 0; i < 199; ++i) list.push_back("s" + std::to_string(i) + ":1");
  for (const std::string& name : list) cluster[name].up = true;
  answer(3, list, 3);
  EXPECT_EQ(table->masterList.count, kMaxProxies);
  EXPECT_EQ(t.logged("72 servers not added, the table is full at 128 servers"), 1);
  EXPECT_EQ(table->clusterSeq, 3);
  veskProxy* extra = join("extra:1", "/extra*=e");
  EXPECT_EQ(t.logged("extra:1 not added, the table is full at 128 servers"), 1);
  EXPECT_EQ(table->masterList.count, kMaxProxies);
  EXPECT_EQ(table->mappings->count, 1);
  (void)extra->destroyInetProxy(extra, t.req);
  EXPECT_EQ(addProxy(table, table->masterList.proxies[127], t.req, 1),
            0);  // a known one returns
  EXPECT_EQ(t.logged("the table is full"), 2);
  EXPECT_EQ(cluster.created, kMaxProxies + 1);
}

TEST_F(ClusterUpdating, longTextIsOneServerForEver) {
  const std::string text = "1.2.3.4:" + std::string(92, '0');
  cluster[text.substr(0, 63)].up = true;
  answer(3, {"a:1", text}, 3);
  answer(4, {"a:1", text}, 4);
  EXPECT_EQ(cluster.created, 2);
  EXPECT_EQ(names(table->masterList), " a:1 " + text.substr(0, 63));
  EXPECT_EQ(table->clusterSeq, 4);
}
