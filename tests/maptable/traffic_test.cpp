// Many requests at once, while servers come and go.

#include <gmock/gmock.h>

#include <thread>

#include "fake_cluster.h"
#include "maptable/cluster_update.h"

class Traffic : public MapTable {
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
