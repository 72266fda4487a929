// Memory that runs out at any moment, with real proxies that talk to their servers.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "maptable/cluster_update.h"
#include "maptable/table_lifecycle.h"
#include "patterns/pattern_match.h"
#include "proxy/wire.h"
#include "support/scripted_backend.h"

// Servers by their ports. They answer whatever comes, in any order.
struct AnsweringServers {
  explicit AnsweringServers(vesk_request* req) {
    req->sn = this;
    req->connect = [](vesk_request* by, const sockaddr_in* address) {
      AnsweringServers* self = of(by);
      by->lastError = 0;
      self->sockets.push_back({ntohs(address->sin_port), ""});
      ++self->open;
      return static_cast<std::int32_t>(self->sockets.size()) - 1;
    };
    req->closeSocket = [](vesk_request* by, std::int32_t) { --of(by)->open; };
    req->send = [](vesk_request* by, std::int32_t sock, const void* frame,
                   std::int32_t length) {
      of(by)->answer(&of(by)->sockets[static_cast<std::size_t>(sock)],
                     {static_cast<const char*>(frame), static_cast<std::size_t>(length)});
      return length;
    };
    req->recv = [](vesk_request* by, std::int32_t sock, void* buffer, std::int32_t length,
                   veskProxy*) {
      std::string& left = of(by)->sockets[static_cast<std::size_t>(sock)].left;
      const auto count =
          left.copy(static_cast<char*>(buffer), static_cast<std::size_t>(length));
      left.erase(0, count);
      by->lastError = count > 0 ? 0 : ECONNRESET;
      return count > 0 ? static_cast<std::int32_t>(count) : -1;
    };
  }

  struct Socket {
    int port;
    std::string left;  // of what was answered
  };

  static AnsweringServers* of(vesk_request* req) {
    return static_cast<AnsweringServers*>(req->sn);
  }

  void answer(Socket* socket, const std::string& frame) {
    if (frame.starts_with(word(PROXY_PING))) return;
    const auto& own = sets[socket->port];
    const auto found = own.find(frame.substr(8));  // behind the command and a length
    if (found != own.end()) socket->left += word(PROXY_PUT_PROPS) + text(found->second);
    socket->left += word(PROXY_PUT_CLUSTER_SEQ) + word(sequence) + word(PROXY_FINISH);
  }

  std::map<int, std::map<std::string, std::string>> sets;
  std::int32_t sequence = 0;
  std::vector<Socket> sockets;
  int open = 0;
};

class LostMemory : public ::testing::Test {
 protected:
  LostMemory() {
    t.req->pb = &seconds;
    t.req->now = [](vesk_request* by) { return *static_cast<std::int64_t*>(by->pb); };
    t.variables["cookie"] = "JSESSIONID=lostTR*abc";
    for (const int port : {1, 2, 3}) {
      const std::string own = std::to_string(port);
      servers.sets[port] = {
          {"server-props", "mapcheck=5\nalgorithm=RANDOM_WEIGHTED\nrep_id=id0" + own},
          {"servlet-mappings", "/all/*=x\n/own" + own + "/*=y\n"}};
    }
    list("a=1.1.1.1:1\nb=1.1.1.1:2\n");
  }
  ~LostMemory() override {
    mappingsTableDelete(table, t.req);
    EXPECT_EQ(t.permBlocks + t.leaks() + servers.open, 0);
    std::filesystem::remove(path);
  }

  // What every server says of the cluster from now on.
  void list(const std::string& names) {
    for (auto& [port, sets] : servers.sets) sets["clustered-servers"] = names;
    ++servers.sequence;
  }
  void makeTable(const char* store, const char* bootstrap) {
    mappingsTableDelete(table, t.req);
    table = mappingsTableNew(t.req, store, bootstrap, 0);
  }
  bool start() {
    const bool started = table->initTable(table, t.req) == 0;
    EXPECT_TRUE(started || table->clusterSeq == 0);
    return started;
  }

  // The last digits of the servers in a list's service, then of those that each URI
  // reaches. Nothing is refreshed by asking.
  std::string routes() const {
    std::string all = digits(table->masterList);
    const std::span patterns(table->patterns,
                             static_cast<std::size_t>(table->mappings->count));
    for (const char* uri : {"/all/a", "/own1/a", "/own2/a", "/own3/a", "/new/a"}) {
      MatchSubject subject{};
      subject.uri = subject.strippedPath = uri;
      const std::int32_t index = nextFinding(patterns, 0, subject).index;
      all += ",";
      if (index < table->mappings->count) all += digits(*table->mappingProxies[index]);
    }
    return all;
  }
  static std::string digits(const proxyList& list) {
    std::string all;
    for (std::int32_t i = 0; i < list.count; ++i)
      if (list.active[i]) all += list.proxies[i]->name[8];
    std::sort(all.begin(), all.end());  // who was lost comes last
    return all;
  }

  // Acts with the n-th allocation failing, for every n. What the act then says has worked
  // is whole; what hasn't is as `before`, if that is given; and the next act, after some
  // time, makes up for it.
  void sweep(const std::function<void()>& prepare, const std::function<bool()>& act,
             const std::string& whole, const char* before = nullptr) {
    bool failed = true;
    for (std::int64_t n = 1; failed; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      prepare();
      t.allocations = 0;
      t.failAllocation = n;
      const bool worked = act();
      failed = t.allocations >= n;
      t.failAllocation = 0;
      if (!worked) {
        if (before) {
          EXPECT_EQ(routes(), before);
        }
        seconds += 10;
        EXPECT_TRUE(act());
      }
      EXPECT_EQ(routes(), whole);
    }
  }

  RecordedRequest t;
  AnsweringServers servers{t.req};
  mappingsTable* table = nullptr;
  std::int64_t seconds = 1000;
  const std::string path =
      ::testing::TempDir() + "vesk-store-" + std::to_string(getpid());
};

TEST_F(LostMemory, startIsWholeOrTriedAgain) {
  sweep([this] { makeTable(nullptr, "1.1.1.1:1"); }, [this] { return start(); },
        "12,12,1,2,,");
}

// Nor does the store lose a server by it, in a first attempt or in one after an attempt
// that has lost the second server.
TEST_F(LostMemory, startFromTheStoreIsWholeOrTriedAgain) {
  const std::string both = "proxyservers=1.1.1.1:1;1.1.1.1:2;";
  for (const bool again : {false, true})
    sweep(
        [&] {
          std::ofstream(path) << "proxyservers=1.1.1.1:1;";
          makeTable(path.c_str(), nullptr);
          if (again) {
            ASSERT_TRUE(start());
          }
          table->initialized = 0;
          std::ofstream(path) << both;
        },
        [&] {
          const bool started = start();
          EXPECT_EQ(std::filesystem::file_size(path), both.size());
          return started;
        },
        "12,12,1,2,,");
}

// A list of which memory lost a server counts as news until it is applied.
TEST_F(LostMemory, clusterUpdateIsWholeOrTriedAgain) {
  sweep(
      [this] {
        list("a=1.1.1.1:1\nb=1.1.1.1:2\n");
        makeTable(nullptr, "1.1.1.1:1");
        ASSERT_TRUE(start());
        list("a=1.1.1.1:1\nc=1.1.1.1:3\n");
      },
      [this] {
        updateClusteredServers(table, t.req, table->masterList.proxies[0],
                               servers.sequence);
        return table->clusterSeq == servers.sequence;
      },
      "13,13,1,,3,");
}

TEST_F(LostMemory, refreshIsWholeOrLeavesTheOldMappings) {
  const auto mappings = [this](const char* text) {
    servers.sets[1]["servlet-mappings"] = text;
  };
  sweep(
      [&] {
        mappings("/all/*=x\n/own1/*=y\n");
        makeTable(nullptr, "1.1.1.1:1");
        ASSERT_TRUE(start());
        mappings("/all/*=other\n/new/*=n\n");
        seconds += 10;
      },
      [this] {
        t.req->uri = "/new/a";
        return table->filterRequest(table, t.req, 0) >= 0;
      },
      "12,12,,2,,1", "12,12,1,2,,");
}

TEST_F(LostMemory, requestFailsAndLeavesNothing) {
  sweep(
      [this] {
        makeTable(nullptr, "1.1.1.1:1");
        ASSERT_TRUE(start());
      },
      [this] {
        t.req->uri = "/all/a;JSESSIONID=x";
        return table->handleRequest(table, t.req, nullptr) == 0;
      },
      "12,12,1,2,,", "12,12,1,2,,");
}
