#include "maptable/server_store.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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

// No file grows beyond so many bytes while it stands: what a full disk is to a write.
struct FullDisk {
  explicit FullDisk(rlim_t size) {
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{size, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &before);
    (void)signal(SIGXFSZ, old);
  }
  rlimit before{};
  sighandler_t old = signal(SIGXFSZ, SIG_IGN);
};

static struct stat statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

// The temporary folder, and a name that leaves no room for a longer one beside it.
TEST_F(ServerStore, fullDiskKeepsTheOldListWhereTheFolderTakesASecondFile) {
  const std::string folder = fs::path(path).parent_path() / "store.d";
  const std::pair<std::string, const char*> rows[] = {{"store", "proxyservers=a:1;"},
                                                      {std::string(250, 's'), "proxy"}};
  for (const auto& [name, left] : rows) {
    fs::create_directory(folder);
    const std::string file = folder + "/" + name;
    makeTable(file.c_str(), nullptr);
    join("a:1");
    EXPECT_EQ(persistServers(table, t.req, 0), 0);
    const ino_t first = statusOf(file).st_ino;
    join("b:1");
    for (int i = 0; i < 2; ++i) {
      const FullDisk full(5);
      EXPECT_EQ(persistServers(table, t.req, 0), -1);
    }
    EXPECT_EQ(t.logged("could not persist servers in " + file + ": File too large"), 2);
    std::string text;
    std::getline(std::ifstream(file), text);
    EXPECT_EQ(text, left);
    EXPECT_EQ(persistServers(table, t.req, 0), 0);
    EXPECT_EQ(statusOf(file).st_ino == first, name.size() == 250);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 1);
    fs::remove_all(folder);
  }
}

TEST_F(ServerStore, keepsItsOwnerItsModeAndTheLinkToIt) {
  const std::string target = path + ".target";
  std::ofstream(target) << "proxyservers=;";
  const uid_t owner = geteuid() == 0 ? 12345 : geteuid();
  ASSERT_EQ(chown(target.c_str(), owner, getegid()) + chmod(target.c_str(), 0640), 0);
  fs::create_symlink(fs::path(target).filename(), path);
  const ino_t first = statusOf(target).st_ino;
  join("a:1");
  EXPECT_EQ(persistServers(table, t.req, 0), 0);
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(stored(), "proxyservers=a:1;");
  const struct stat now = statusOf(target);
  EXPECT_EQ(now.st_mode & 07777U, 0640U);
  EXPECT_EQ(now.st_uid, owner);
  EXPECT_NE(now.st_ino, first) << "overwritten in place";
  fs::remove(target);
}

TEST_F(ServerStore, whatIsNoFileIsRefusedWithoutAWait) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int reader = open(path.c_str(), O_RDWR | O_CLOEXEC);
  for (const std::string& name : {path, std::string("/dev/full")}) {
    makeTable(name.c_str(), nullptr);
    join("a:1");
    t.logLines.clear();
    EXPECT_EQ(loadServersFromStore(table, t.req), 0);
    EXPECT_EQ(persistServers(table, t.req, 0), -1);
    EXPECT_EQ(t.logged("\"" + name + "\": Operation not supported"), 3) << name;
  }
  close(reader);
}
