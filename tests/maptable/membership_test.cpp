#include "maptable/membership.h"

#include <gmock/gmock.h>

#include "fake_cluster.h"

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
  join("b:1", "/c/d*=c\n//h/x*=h\n/b*=b\n/a*=a\n*.vhd=v\n*=d");
  EXPECT_THAT(mappings(), ElementsAre("//h/x*=h b:1", "/long/er*=l a:1", "/c/d*=c b:1",
                                      "/b*=b a:1 b:1", "/a*=a b:1", "*.jsp=j a:1",
                                      "*.vhd=v b:1", "*=d b:1"));
  EXPECT_EQ(table->mappingBalances[5], suffix);
  EXPECT_EQ(table->mappingProxies[8], nullptr);
  EXPECT_TRUE(isClustered(table));
}

TEST_F(Membership, serversLeaveChangeAndReturn) {
  veskProxy* a = join("a:1", "/b*=b\n*.jsp=j");
  veskProxy* b = join("b:1", "/c*=c\n/b*=b\n*.jsp=j");
  const auto servers = [this] { return names(table->masterList); };
  removeProxy(table, a, t.req, 1);
  EXPECT_THAT(mappings(),
              ElementsAre("/b*=b [a:1] b:1", "/c*=c b:1", "*.jsp=j [a:1] b:1"));
  EXPECT_TRUE(isProxyActive(b) && !isProxyActive(a) && servers() == " [a:1] b:1");
  update(b, "/c*=new\n/z=z");
  EXPECT_THAT(mappings(), ElementsAre("/b*=b [a:1] [b:1] none", "/c*=new b:1",
                                      "*.jsp=j [a:1] [b:1] none", "/z=z b:1"));
  update(a, "/c*=a\n/b*=b\n/y=y");  // as one that isn't in service
  EXPECT_THAT(mappings(),
              ElementsAre("/b*=b [a:1] [b:1] none", "/c*=a b:1 a:1",
                          "*.jsp=j [a:1] [b:1] none", "/z=z b:1", "/y=y a:1 none"));
  EXPECT_TRUE(isProxyActive(b) && !isProxyActive(a) && servers() == " [a:1] b:1");
  addProxy(table, a, t.req, 1);
  EXPECT_THAT(mappings(),
              ElementsAre("/b*=b a:1 [b:1]", "/c*=a b:1 a:1", "*.jsp=j [a:1] [b:1] none",
                          "/z=z b:1", "/y=y a:1"));
  EXPECT_TRUE(isProxyActive(b) && isProxyActive(a) && servers() == " a:1 b:1");
  setProxyActive(b, false);  // as the pool does
  update(b, "/c*=a\n/z=z");
  EXPECT_THAT(mappings(),
              ElementsAre("/b*=b a:1 [b:1]", "/c*=a [b:1] a:1",
                          "*.jsp=j [a:1] [b:1] none", "/z=z [b:1] none", "/y=y a:1"));
}

TEST_F(Membership, returningServerIsFreshAgain) {
  veskProxy* a = join("a:1");
  table->clusterSeq = 7;
  remove(a);
  EXPECT_EQ(table->clusterSeq, 0);
  EXPECT_EQ(table->tableUse, kTableChanged);
  EXPECT_EQ(cluster["a:1"].flushes, 1);
  setProxyRetryTime(a, 99);
  addProxy(table, a, t.req, 1);
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
  EXPECT_EQ(t.logged("propertyTable full when trying to add /b"), 808);
  update(b, "/a17=x\n/other=o");
  EXPECT_EQ(t.logged("propertyTable full when trying to add /other = o"), 1);
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
