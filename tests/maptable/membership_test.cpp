#include "maptable/membership.h"

#include <gmock/gmock.h>

#include <cerrno>

#include <sstream>

#include "fake_cluster.h"
#include "proxy/mapping_order.h"

using ::testing::ElementsAre;

using Membership = MapTable;

static std::string manyMappings(const std::string& start, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += start + std::to_string(i) + "=x\n";
  return text;
}

TEST_F(Membership, mappingsMoveToTheirPlaceInAllColumns) {
  join("a:1", "/long/er*=l\n/b*=b\n*.jsp=j");
  const mappingBalance* suffix = table->mappingBalances[2];
  join("b:1", "/c/d*=c\n//h/x*=h\n/b*=b\n/a*=a\n/a*=a\n*.vhd=v\n*=d");
  EXPECT_THAT(mappings(), ElementsAre("//h/x*=h b:1", "/long/er*=l a:1", "/c/d*=c b:1",
                                      "/b*=b a:1 b:1", "/a*=a b:1", "*.jsp=j a:1",
                                      "*.vhd=v b:1", "*=d b:1"));
  EXPECT_EQ(table->mappingBalances[5], suffix);
  EXPECT_EQ(table->mappingProxies[8], nullptr);
  EXPECT_TRUE(isClustered(table));
}

// More than are moved together, into a table whose end is out of order.
TEST_F(Membership, manyMappingsMoveAsIfEachMovedAlone) {
  std::string brought;
  for (int i = 0; i < 200; ++i)
    brought += "/" + std::string(i * 7 % 23U, 'x') + std::to_string(i) + "*=b\n";
  update(join("a:1", "/xxxxxxxxxxxxx=a\n*.j=a"), "/xxxxx=a\n/xxxxxxxxxx*=a\n/x=a");
  std::vector<std::string> expected = {"/xxxxxxxxxxxxx", "*.j", "/xxxxx", "/xxxxxxxxxx*",
                                       "/x"};
  std::istringstream lines(brought);
  for (std::string key; std::getline(lines, key, '=') && lines.ignore(2);) {
    auto place = expected.end();
    const auto beats = [&](std::string& other) {
      const property first{key.data(), nullptr}, second{other.data(), nullptr};
      return longerThan(&first, &second) != 0;
    };
    while (place != expected.begin() && beats(*std::prev(place))) --place;
    expected.insert(place, key);
  }
  join("b:1", brought.c_str());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(table->mappings->entries[i].key, expected[i]);
    EXPECT_EQ(table->patterns[i].text, table->mappings->entries[i].key);
    EXPECT_EQ(table->mappings->entries[i].value[0],
              table->mappingProxies[i]->proxies[0]->name[0]);
  }
  EXPECT_EQ(table->mappings->count, 205);
  EXPECT_EQ(table->lastMapping, 204);
}

TEST_F(Membership, serversLeaveChangeAndReturn) {
  veskProxy* a = join("a:1", "/b*=b\n*.jsp=j");
  veskProxy* b = join("b:1", "/c*=c\n/b*=b\n*.jsp=j");
  const auto servers = [this] { return names(table->masterList); };
  const auto freshen = [this] {
    for (std::int32_t i = 0; i < table->mappings->count; ++i)
      table->mappingBalances[i]->slotsStale = 0;
  };
  const auto stale = [this] {
    std::string all;
    for (std::int32_t i = 0; i < table->mappings->count; ++i)
      all += table->mappingBalances[i]->slotsStale ? '1' : '0';
    return all;
  };
  freshen();
  removeProxy(table, a, t.req, 1);
  EXPECT_EQ(stale(), "111");  // also where it served nothing
  EXPECT_THAT(mappings(),
              ElementsAre("/b*=b [a:1] b:1", "/c*=c b:1", "*.jsp=j [a:1] b:1"));
  EXPECT_TRUE(isProxyActive(b) && !isProxyActive(a) && servers() == " [a:1] b:1");
  freshen();
  update(b, "/c*=new\n/z=z");
  EXPECT_EQ(stale(), "1111");
  EXPECT_THAT(mappings(), ElementsAre("/b*=b [a:1] [b:1] none", "/c*=new b:1",
                                      "*.jsp=j [a:1] [b:1] none", "/z=z b:1"));
  update(a, "/c*=a\n/b*=b\n/y=y");  // as one that isn't in service
  EXPECT_THAT(mappings(),
              ElementsAre("/b*=b [a:1] [b:1] none", "/c*=a b:1 a:1",
                          "*.jsp=j [a:1] [b:1] none", "/z=z b:1", "/y=y a:1 none"));
  EXPECT_TRUE(isProxyActive(b) && !isProxyActive(a) && servers() == " [a:1] b:1");
  freshen();
  EXPECT_EQ(addProxy(table, a, t.req, 1), 0);
  EXPECT_EQ(stale(), "11001");
  EXPECT_THAT(mappings(),
              ElementsAre("/b*=b a:1 [b:1]", "/c*=a b:1 a:1", "*.jsp=j [a:1] [b:1] none",
                          "/z=z b:1", "/y=y a:1"));
  EXPECT_TRUE(isProxyActive(b) && isProxyActive(a) && servers() == " a:1 b:1");
  setProxyActive(b, false);  // as the pool does
  update(b, "/c*=a\n/z=z");
  EXPECT_THAT(mappings(),
              ElementsAre("/b*=b a:1 [b:1]", "/c*=a [b:1] a:1",
                          "*.jsp=j [a:1] [b:1] none", "/z=z [b:1] none", "/y=y a:1"));
  update(a, "/z=z");  // new there, which doesn't count as one in service
  EXPECT_EQ(mappings()[3], "/z=z [b:1] a:1 none");
}

// Memory that runs out leaves the table as it was, and the next occasion makes up for
// it, also where the server has no interval of refreshes.
TEST_F(Membership, changeWithoutMemoryIsMadeWholeOrNotAtAll) {
  join("a:1", "/b*=b\n*.jsp=j");
  const std::vector<std::string> before = mappings();
  cluster["b:1"].mappings = "/c*=c\n/b*=b\n/long*=l";
  veskProxy* b = table->newProxy(t.req);
  ASSERT_EQ(b->initProxy(b, t.req, "b:1", 0, 0), 0);
  for (int n = 1; n <= 8; ++n) {  // two new mappings of four blocks each
    t.failAllocation = t.allocations + n;
    EXPECT_EQ(addProxy(table, b, t.req, 1), -1);
    EXPECT_EQ(t.req->lastError, ENOBUFS);
    EXPECT_EQ(mappings(), before);
    EXPECT_EQ(names(table->masterList), " a:1");
    EXPECT_EQ(table->lastMapping, 1);
  }
  EXPECT_EQ(addProxy(table, b, t.req, 1), 0);
  EXPECT_THAT(mappings(),
              ElementsAre("/long*=l b:1", "/b*=b a:1 b:1", "/c*=c b:1", "*.jsp=j a:1"));
  for (int n = 1; n <= 4; ++n) {
    setMapCheckTime(b, kNever);
    update(b, "/b*=b\n/new*=n", n);
    EXPECT_EQ(mappings()[2], "/c*=c b:1");
    EXPECT_EQ(table->mappings->count, 4);
    EXPECT_LT(getMapCheckTime(b), kNever);
  }
  update(b, "/b*=other", 1);
  EXPECT_EQ(mappings()[1], "/b*=b a:1 b:1");
}

TEST_F(Membership, returningServerIsFreshAgain) {
  veskProxy* a = join("a:1");
  table->clusterSeq = 7;
  remove(a);
  EXPECT_EQ(table->clusterSeq, 0);
  EXPECT_EQ(table->tableUse, kTableChanged);
  EXPECT_EQ(cluster["a:1"].flushes, 1);
  EXPECT_EQ(t.traced("removeProxy - after"), 1);
  EXPECT_EQ(t.traced("   /demo*=demo"), 2);
  EXPECT_EQ(t.traced("      a:1 active: 0"), 1);
  setProxyRetryTime(a, 99);
  EXPECT_EQ(addProxy(table, a, t.req, 1), 0);
  EXPECT_EQ(getProxyRetryTime(a), 0);
  EXPECT_EQ(t.traced("Proxy a:1 already exists for mapping /demo*, not adding a"), 1);
  table->masterList.count = 0;
  remove(a);
  EXPECT_EQ(t.logged("Whoa Nelly, removed proxy that's not in the master list a:1"), 1);
  EXPECT_EQ(cluster["a:1"].flushes, 1);
  table->masterList.count = 1;
}

TEST_F(Membership, balanceOfJoinedMappings) {
  cluster["a:1"].sticky = 1;
  join("a:1");
  mappingBalance* demo = table->mappingBalances[0];
  EXPECT_EQ(demo->sticky, 1U);
  EXPECT_EQ(t.tracedE("a:1 added/activated proxy, seq 0"), 1);
  EXPECT_EQ(demo->slotsStale, 1U);
  EXPECT_EQ(demo->cursor, -1);
  demo->slotsStale = 0;
  veskProxy* b = join("b:1", "/demo*=other");
  EXPECT_EQ(t.logged("Proxy b:1 already has mapping /demo*=demo, ignoring /demo*=other"),
            1);
  EXPECT_EQ(demo->slotsStale, 0U);
  update(b, "/demo*=demo\n/new*=n");
  EXPECT_EQ(demo->slotsStale, 1U);
  EXPECT_EQ(table->mappingBalances[1]->cursor, 0);
  EXPECT_EQ(table->tableUse, kTableChanged);
  table->mappingBalances[1]->slotsStale = 0;
  update(b, "/demo*=demo");
  EXPECT_EQ(table->mappingBalances[1]->slotsStale, 1U);
}

TEST_F(Membership, settingsOfTheLastServerStandWhileTheTableIsBuilt) {
  join("a:1");
  cluster["b:1"].algorithm = BALANCE_MIN;
  cluster["b:1"].sticky = 1;
  join("b:1");
  EXPECT_EQ(table->mappingBalances[0]->algorithm, BALANCE_MIN);
  EXPECT_EQ(table->mappingBalances[0]->sticky, 1U);
  EXPECT_EQ(t.logged("Conflicting load balancing algorithm entries 1 vs. 3 for b:1"), 1);
  EXPECT_EQ(t.logged("Conflicting sticky session values for b:1"), 1);
  table->tableUse = kTableServing;
  join("c:1");
  EXPECT_EQ(table->mappingBalances[0]->algorithm, BALANCE_MIN);
  EXPECT_EQ(t.logged("Conflicting"), 2);
}

TEST_F(Membership, fullTableOfMappingsRefusesWhatDoesNotFit) {
  join("a:1", manyMappings("/a", 5000).c_str());
  veskProxy* b = join("b:1", manyMappings("/b", 4000).c_str());
  EXPECT_EQ(table->mappings->count, kMaxMappings);
  EXPECT_EQ(table->lastMapping, kMaxMappings - 1);
  EXPECT_EQ(t.logged("propertyTable full when trying to add /b"), 10);
  EXPECT_EQ(t.logged("b:1: 798 more not added, the table is full"), 1);
  update(b, "/a17=x\n/other=o");
  EXPECT_EQ(t.logged("propertyTable full when trying to add /other = o"), 1);
}

// A server that disagrees on all its mappings doesn't fill the log.
TEST_F(Membership, lineOfAKindIsCountedFromTheEleventhOn) {
  join("a:1", manyMappings("/", 12).c_str());
  cluster["b:1"].algorithm = BALANCE_MIN;
  join("b:1", (manyMappings("/", 11) + "/11=y").c_str());
  EXPECT_EQ(t.logged("Conflicting load balancing algorithm entries 1 vs. 3"), 10);
  EXPECT_EQ(t.logged("Proxy b:1 already has mapping /11=x, ignoring /11=y mapping!"), 1);
  EXPECT_EQ(t.logged("b:1: 1 more with a conflicting load balancing"), 1);
  EXPECT_EQ(t.logLines.size(), 12U);
}

TEST_F(Membership, fullListOfAMappingRefusesOneMore) {
  veskProxy* a = join("a:1", "/x*=x\n/y*=y");
  proxyList* list = table->mappingProxies[1];
  for (; list->count < kMaxProxies; ++list->count) list->proxies[list->count] = a;
  join("c:1", "/y*=y\n/x*=x");
  EXPECT_EQ(list->count, kMaxProxies);
  EXPECT_EQ(t.logged("c:1 not added to mapping /y*, its list is full at 128 servers"), 1);
  EXPECT_EQ(names(*table->mappingProxies[0]), " a:1 c:1");
}
