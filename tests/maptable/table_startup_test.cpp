#include "maptable/table_startup.h"

#include <fstream>

#include "fake_cluster.h"
#include "maptable/last_ditch.h"

class Startup : public MapTable {
 protected:
  Startup() : boot(cluster["boot:1"]) {
    boot.clustered = {"a:1", "b:1"};
    boot.listSequence = 3;
    cluster["a:1"].up = cluster["b:1"].up = true;
  }

  FakeServer& boot;
};

TEST_F(Startup, withoutSourcesEveryRequestTriesAndFails) {
  for (int i = 0; i < 2; ++i) EXPECT_EQ(table->initTable(table, t.req), -1);
  EXPECT_EQ(t.logged(", no bootstrap specified."), 2);
  EXPECT_EQ(t.logged("can't load servers from serverstore, no serverstore specified."),
            2);
  EXPECT_EQ(t.logged("remote server, Vesk server(s) probably down."), 2);
}

TEST_F(Startup, bootstrapGoesFirstAndTheStoreStandsIn) {
  // The bootstrap server's list and its number; who was asked, the store then, the
  // number known, whether it is a cluster, whether the bootstrap server helped.
  using List = std::vector<std::string>;
  const std::tuple<const char*, List, int, const char*, const char*, int, int> rows[] = {
      {"boot:1", {"a:1", "b:1"}, 3, "boot:1 a:1 b:1 ", "a:1;b:1;", 3, 1},
      {"boot:1", {"a:1"}, 0, "boot:1 a:1 ", "a:1;", 0, 1},
      {"boot:1", {}, 3, "boot:1 old:1 ", "old:1;", 0, 0},
      {"down:1", {}, 3, "down:1 old:1 ", "old:1;", 0, 0},
      {"nocolon", {}, 3, "nocolon old:1 ", "old:1;", 0, 0}};
  cluster["old:1"].up = true;
  for (const auto& [bootstrap, list, number, asked, store, known, helped] : rows) {
    SCOPED_TRACE(asked);
    std::ofstream(path) << "proxyservers=old:1;";
    makeTable(path.c_str(), bootstrap);
    boot.clustered = list;
    boot.listSequence = number;
    cluster.asked.clear();
    // The second call finds the table filled.
    for (int i = 0; i < 2; ++i) EXPECT_EQ(table->initTable(table, t.req), 0);
    EXPECT_EQ(cluster.asked, asked);
    EXPECT_EQ(stored(), std::string("proxyservers=") + store);
    EXPECT_EQ(table->clusterSeq, known);
    EXPECT_EQ(isClustered(table), known > 0);
    EXPECT_EQ(table->bootstrapped, static_cast<std::uint32_t>(helped));
    EXPECT_EQ(cluster.created, cluster.destroyed + table->masterList.count);
  }
}

// An attempt that had no memory for a server may have been followed by one in which that
// server is down: the others serve.
TEST_F(Startup, serversOfAFailedAttemptCount) {
  makeTable(nullptr, "boot:1");
  cluster.mostCreated = 2;
  EXPECT_EQ(table->initTable(table, t.req), -1);
  EXPECT_EQ(names(table->masterList), " a:1");
  cluster.mostCreated = INT_MAX;
  cluster["b:1"].up = false;
  EXPECT_EQ(table->initTable(table, t.req), 0);
  EXPECT_EQ(names(table->masterList), " a:1");
}

TEST_F(Startup, knownServersReturnAndDontCount) {
  makeTable(nullptr, "boot:1");
  remove(join("a:1"));
  join("b:1");
  EXPECT_EQ(retrieveServersFromBootstrapServer(table, t.req, 0), 0);
  EXPECT_EQ(names(table->masterList), " a:1 b:1");
  EXPECT_EQ(table->bootstrapped, 0U);
}

TEST_F(Startup, lastDitchAsksTheBootstrapServerFirst) {
  makeTable(nullptr, "boot:1");
  remove(join("a:1"));
  failedList failed{};
  EXPECT_EQ(lastDitchFindReachableServer(table, t.req, 0, &failed), 0);
  EXPECT_EQ(t.tracedE("found reachable server using bootstrap server"), 1);
  EXPECT_EQ(names(table->masterList), " a:1 b:1");
  EXPECT_EQ(cluster["a:1"].pings, 0);
  cluster["b:1"].up = false;
  for (const std::int32_t i : {0, 1}) {
    remove(table->masterList.proxies[i]);
    failed.proxies[failed.count++] = table->masterList.proxies[i];
  }
  EXPECT_EQ(lastDitchFindReachableServer(table, t.req, 0, &failed), -1);
  EXPECT_EQ(boot.lists, 1);  // not asked again once it has helped
}
