// Memory that runs out at any moment, and many requests at once.

#include <gmock/gmock.h>

#include <thread>

#include "fake_cluster.h"
#include "maptable/cluster_update.h"

class Robustness : public MapTable {
 protected:
  // Parallel and complete, whatever was left out.
  void checkColumns() const {
    for (std::int32_t i = 0; i < table->mappings->count; ++i) {
      ASSERT_TRUE(table->mappings->entries[i].key && table->mappings->entries[i].value);
      ASSERT_TRUE(table->mappingProxies[i] && table->mappingBalances[i]);
      EXPECT_GE(table->mappingProxies[i]->count, 1);
    }
    EXPECT_EQ(table->mappingProxies[table->mappings->count], nullptr);
    EXPECT_EQ(table->lastMapping, std::max(0, table->mappings->count - 1));
  }

  // All that allocates: start-up, an update, a refresh, a choice with a session.
  void liveThroughIt() {
    t.variables["cookie"] = "JSESSIONID=aaaaTRbbbb";
    (void)table->initTable(table, t.req);
    for (std::int32_t i = 0; i < table->masterList.count; ++i)
      updateClusteredServers(table, t.req, table->masterList.proxies[i], 9);
    (void)table->filterRequest(table, t.req, 1);
    (void)table->handleRequest(table, t.req, nullptr);
  }
};

TEST_F(Robustness, everyAllocationMayFail) {
  cluster["boot:1"].clustered = {"a:1", "b:1"};
  cluster["a:1"].clustered = {"a:1", "b:1", "c:1"};
  cluster["a:1"].listSequence = 9;
  cluster["a:1"].refreshed = 0;
  cluster["a:1"].mappings = "/x*=x\n/y*=y\n*.jsp=j";
  for (const char* name : {"a:1", "b:1", "c:1"}) {
    cluster[name].algorithm = BALANCE_RANDOM_WEIGHTED;
    cluster[name].replicationId = name;
  }
  t.req->uri = "/x/a;p";
  std::int64_t number = 1;
  for (bool failed = true; failed; ++number) {
    SCOPED_TRACE("allocation " + std::to_string(number));
    makeTable(nullptr, nullptr);
    t.failAllocation = number;
    t.allocations = 0;
    makeTable(path.c_str(), "boot:1");
    if (table) {
      liveThroughIt();
      checkColumns();
    }
    failed = t.allocations >= number;
    t.failAllocation = 0;
    EXPECT_EQ(t.leaks(), 0);
  }
  EXPECT_GT(number, 60);
  EXPECT_EQ(names(table->masterList), " a:1 b:1 c:1");
}

class Traffic : public Robustness {
 protected:
  // What a host thread does; it also brings the cluster's news.
  void browse() {
    RecordedRequest browser;
    browser.req->uri = "/demo/a";
    for (int i = 0; i < kRounds; ++i) {
      const std::int32_t index = table->filterRequest(table, browser.req, 1);
      served += table->handleRequestWithIndex(table, browser.req, nullptr, index) == 0;
      updateClusteredServers(table, browser.req, table->masterList.proxies[0], i % 3);
    }
    blocks += browser.permBlocks;
    --running;
  }

  static constexpr int kThreads = 4, kRounds = 300;
  std::atomic<int> served = 0, running = kThreads;
  std::atomic<std::int64_t> blocks = 0;
};

// A request may still meet the same failing server twice; most don't.
TEST_F(Traffic, runsWhileServersComeAndGo) {
  cluster.recordForwarded = false;
  for (const char* name : {"a:1", "b:1", "c:1"}) {
    cluster[name].algorithm = BALANCE_RANDOM_WEIGHTED;
    cluster[name].clustered = {"a:1", "b:1", "c:1"};
    cluster[name].listSequence = 2;
    join(name);
  }
  cluster["b:1"].up = false;  // met at least once, however the threads run
  std::thread threads[kThreads];
  for (std::thread& thread : threads) thread = std::thread([this] { browse(); });
  for (int i = 0; running > 0; ++i) {  // one change of a server's luck
    FakeServer& server = cluster[i % 2 ? "b:1" : "c:1"];
    server.up = !server.up;
    server.refreshed = i % 3 - 1;
    setProxyWeight(table->masterList.proxies[i % 3], 1 + i % 5);
    std::this_thread::yield();
  }
  for (std::thread& thread : threads) thread.join();
  t.permBlocks += blocks;  // the table's memory, whoever asked for it

  EXPECT_GT(served, kThreads * kRounds / 2);
  EXPECT_GT(cluster["b:1"].flushes + cluster["c:1"].flushes, 0);
  EXPECT_EQ(cluster.created, 3);
  checkColumns();
}
