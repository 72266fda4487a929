#include "maptable/server_store.h"

#include <gmock/gmock.h>

#include <climits>
#include <filesystem>
#include <fstream>

#include "fake_cluster.h"
#include "maptable/table_startup.h"

namespace fs = std::filesystem;

class ServerStore : public MapTable {
 protected:
  ServerStore() {
    makeTable(path.c_str(), "boot:1");
  }
};

TEST_F(ServerStore, holdsTheActiveFirstAndNotTheBootstrapServer) {
  EXPECT_EQ(persistServers(table, t.req, 0), 0);
  EXPECT_FALSE(fs::exists(path));  // an empty table says nothing
  join("boot:1");
  EXPECT_EQ(persistServers(table, t.req, 0), 0);
  EXPECT_EQ(stored(), "proxyservers=");
  join("a:1");
  veskProxy* b = join("b:1");
  join("c:1");
  remove(b);
  EXPECT_EQ(persistServers(table, t.req, 0), 0);
  EXPECT_EQ(stored(), "proxyservers=a:1;c:1;b:1;");
  EXPECT_EQ(t.tracedE("persisted servers in " + path + ": proxyservers=a:1;"), 1);
  fs::remove(path);
  EXPECT_EQ(persistServers(table, t.req, 0), 0);
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(t.traced("no changes to serverstore " + path), 1);
  EXPECT_EQ(addProxy(table, b, t.req, 1), 0);  // order alone is a change
  EXPECT_EQ(persistServers(table, t.req, 0), 0);
  EXPECT_EQ(stored(), "proxyservers=a:1;b:1;c:1;");
}

TEST_F(ServerStore, isReadLiberallyAndRewritten) {
  std::string full = "proxyservers=", fullAsked;
  for (int i = 0; i < kMaxProperties + 5; ++i) full += "bad;";
  for (int i = 0; i < kMaxProperties; ++i) fullAsked += "bad ";
  const std::string a = "proxyservers=a:1;";
  // The file, the servers asked, the file afterwards, or null: as it was.
  const std::tuple<const char*, std::string, std::string, const char*> rows[] = {
      {"no ';' at the end", "proxyservers=a:1", "a:1 ", a.c_str()},
      {"a comment and a line end", "#x\nproxyservers=a:1;\n", "a:1 ", a.c_str()},
      {"empty pieces", "proxyservers=;;a:1;;", "a:1 ", a.c_str()},
      {"one name twice", "proxyservers=a:1;a:1;", "a:1 ", a.c_str()},
      {"a lost server", "proxyservers=down:1;a:1;", "down:1 a:1 ", a.c_str()},
      {"none reachable", "proxyservers=down:1;", "down:1 ", nullptr},
      {"no colon", "proxyservers=abc;a:1;", "abc a:1 ", a.c_str()},
      {"empty value", "proxyservers=", "", nullptr},
      {"a NUL ends it", std::string("proxyservers=a:1;\0b:1", 21), "a:1 ", nullptr},
      {"more than a table holds", full, fullAsked, nullptr}};
  cluster["a:1"].up = cluster["b:1"].up = true;
  for (const auto& [why, text, asked, after] : rows) {
    makeTable(path.c_str(), nullptr);
    cluster.asked.clear();
    std::ofstream(path) << text;
    EXPECT_EQ(loadServersFromStore(table, t.req), table->masterList.count);
    EXPECT_EQ(cluster.asked, asked) << why;
    EXPECT_EQ(stored(), after ? after : text) << why;
  }
}

TEST_F(ServerStore, hostileFilesAreReportedOnce) {
  EXPECT_EQ(loadServersFromStore(table, t.req), 0);
  EXPECT_EQ(
      t.logged("could not open serverstore \"" + path + "\": No such file or directory"),
      1);
  t.logLines.clear();
  fs::create_directory(path);
  EXPECT_EQ(loadServersFromStore(table, t.req), 0);
  EXPECT_THAT(t.logLines, ::testing::ElementsAre("could not read contents of " + path +
                                                 ": Is a directory"));
  join("a:1");
  EXPECT_EQ(persistServers(table, t.req, 0), -1);
  EXPECT_EQ(t.logged("could not open \"" + path + "\": Is a directory"), 1);
  fs::remove(path);
  std::ofstream(path) << "proxyservers=b:1;";
  fs::resize_file(path, INT_MAX);  // sparse
  t.logLines.clear();
  EXPECT_EQ(loadServersFromStore(table, t.req), 0);
  EXPECT_EQ(t.logged(": File too large"), 1);
}

TEST_F(ServerStore, fullDiskIsAFailureAndTriedAgain) {
  makeTable("/dev/full", nullptr);
  join("a:1");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(persistServers(table, t.req, 0), -1);
  EXPECT_EQ(t.logged("could not persist servers in /dev/full: No space left on"), 2);
}
