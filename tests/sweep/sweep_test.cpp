// Every scenario with every allocation, byte, word and system call going wrong once, with
// guards and without: nothing may crash, hang or be left behind, and once the fault is
// over the next requests are served.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>

#include "context/guards.h"
#include "maptable/table_lifecycle.h"
#include "playing_servers.h"
#include "proxy/replay.h"
#include "proxy/wire.h"
#include "support/recorded_request.h"
#include "system_calls.h"

constexpr char kPage[] = "a page";

static Answer page(std::int32_t sequence) {
  Answer answer;
  answer.word(PROXY_PUT_STATUS).word(200).text("OK");
  answer.word(PROXY_PUT_HEADER).text("A: 1\r\nB: 2\r\n");
  answer.word(PROXY_SET_ATTRIBUTE).text("user").text("me");
  answer.word(PROXY_GET_DATA).word(4);
  answer.word(PROXY_PUT_CLUSTER_SEQ).word(sequence);
  return answer.word(PROXY_PUT_CLIENT).text(kPage).word(PROXY_FINISH);
}

static Answer props(const std::string& set, std::int32_t sequence = 0) {
  Answer answer;
  answer.word(PROXY_PUT_PROPS).text(set);
  if (sequence) answer.word(PROXY_PUT_CLUSTER_SEQ).word(sequence);
  return answer.word(PROXY_FINISH);
}

static std::int64_t testNow = 1000000;

class Sweep : public testing::TestWithParam<const char*> {
 protected:
  Sweep()
      : servers(3), store(testing::TempDir() + "vesk-sweep-" + std::to_string(getpid())) {
    t.req->now = [](vesk_request*) { return testNow; };
    t.req->guards = readGuards(GetParam()).mask;
    t.req->method = "GET";
    t.req->uri = "/all/a;JSESSIONID=none";
    for (std::size_t i = 0; i < 3; ++i)
      servers.answer(i, "server-props", props("mapcheck=5\nproxyretryinterval=1"));
    list(2, 1);
  }
  ~Sweep() override {
    mappingsTableDelete(table, t.req);
    EXPECT_EQ(t.permBlocks + t.leaks(), 0);
    std::filesystem::remove(store);
  }

  // What every server says from now on: a cluster of so many, in that state. Each state
  // has a mapping of its own.
  void list(std::size_t count, std::int32_t sequence) {
    whole = {{"/all*", count}, {"/state1*", 0}};
    whole["/state" + std::to_string(sequence) + "*"] = count;
    std::string names;
    for (std::size_t i = 0; i < count; ++i)
      names += "s" + std::to_string(i) + "=" + servers.name(i) + "\n";
    for (std::size_t i = 0; i < 3; ++i) {
      servers.answer(i, "clustered-servers", props(names, sequence));
      servers.answer(i, "servlet-mappings",
                     props("/all/*=x\n/state" + std::to_string(sequence) + "/*=y\n"));
      servers.answer(i, "service", page(sequence));
    }
  }

  void begin() {
    mappingsTableDelete(table, t.req);
    testNow += 1000;
    list(2, 1);
    table = mappingsTableNew(t.req, store.c_str(), servers.name(0).c_str(), 1);
  }

  // One request as the adapter makes it: true when a server's page came whole.
  bool request() {
    t.req->lastError = t.req->responseStarted = t.req->clientWriteFailures = 0;
    t.req->replay = {};
    t.body.clear();
    t.postData = "body";
    t.req->hasPostData = 1;
    bool served = table->initTable(table, t.req) == 0;
    const std::int32_t index = served ? table->filterRequest(table, t.req, 1) : -1;
    served =
        index >= 0 && table->handleRequestWithIndex(table, t.req, nullptr, index) == 0;
    t.req->freeAttributes(t.req);
    t.req->freeAttributeNames(t.req);
    releaseKeptBlocks(t.req);
    endReplay(t.req);
    return served && t.body == kPage;
  }

  // How many servers serve each mapping.
  std::map<std::string, std::size_t> serving() const {
    std::map<std::string, std::size_t> counts;
    for (std::int32_t i = 0; i < table->mappings->count; ++i) {
      const proxyList& list = *table->mappingProxies[i];
      counts[table->mappings->entries[i].key] =
          static_cast<std::size_t>(std::count(list.active, list.active + list.count, 1U));
    }
    return counts;
  }

  // The fault is over; some time passes between the tries, as it does for users.
  void expectRecovery(const std::string& fault) {
    t.failAllocation = 0;
    failCall(0, 0);
    servers.arm({});
    int tries = 1;
    for (testNow += 20; !request() && tries < 4; ++tries) testNow += 20;
    EXPECT_LT(tries, 4) << fault << t.all().substr(0, 2000);
    t.logLines.clear();
    t.traceLines.clear();
    t.traceELines.clear();
  }

  RecordedRequest t;
  PlayingServers servers;
  const std::string store;
  mappingsTable* table = nullptr;
  std::map<std::string, std::size_t> whole;  // what `serving` tells in the end
};

class Sweeping : public Sweep {
 protected:
  void serveOnce() {
    (void)request();
  }
  // A refresh is due, and a third server joins by the reply's number.
  void change() {
    serveOnce();
    testNow += 10;
    list(3, 2);
  }
  // The server whose turn comes next is busy.
  void makeBusy() {
    serveOnce();
    servers.answer(1, "service", Answer().word(PROXY_BUSY));
  }
  // A host that starts without its bootstrap server.
  void startFromStore() {
    serveOnce();
    mappingsTableDelete(table, t.req);
    table = mappingsTableNew(t.req, store.c_str(), nullptr, 1);
  }
  void nothing() {}

  // What leads up to the fault, which a request then meets.
  struct Scenario {
    const char* name;
    void (Sweeping::*prepare)();
  };
  static constexpr Scenario kScenarios[] = {{"start ", &Sweeping::nothing},
                                            {"store ", &Sweeping::startFromStore},
                                            {"page ", &Sweeping::serveOnce},
                                            {"change ", &Sweeping::change},
                                            {"failover ", &Sweeping::makeBusy}};

  // Has the fault strike at its n-th place, for every n, until it finds no place any
  // more.
  void sweep(const std::function<void(std::int64_t n)>& arm,
             const std::function<std::int64_t()>& places) {
    for (const Scenario& scenario : kScenarios) {
      std::int64_t n = -1;
      bool struck = true;
      while (struck) {
        begin();
        (this->*scenario.prepare)();
        arm(++n);
        (void)request();
        struck = places() > n;
        expectRecovery(scenario.name + std::to_string(n) + "\n");
        if (losesNothing) {
          EXPECT_EQ(serving(), whole) << scenario.name << n;
        }
      }
      EXPECT_GE(n, 3) << scenario.name << "never met the fault";
    }
  }

  bool losesNothing = false;
};

// Whatever memory has lost is made up for.
TEST_P(Sweeping, everyAllocationFails) {
  losesNothing = true;
  sweep(
      [this](std::int64_t n) {
        t.allocations = 0;
        t.failAllocation = n + 1;
      },
      [this] { return t.allocations; });
}

TEST_P(Sweeping, everyByteIsTheLast) {
  sweep([this](std::int64_t n) { servers.arm({.cutAfter = n}); },
        [this] { return servers.bytesSent(); });
}

TEST_P(Sweeping, everyWordIsAnother) {
  for (const std::int32_t word : {0, -1, 1, 9, 0x7FFFFFFF})
    sweep([this, word](
              std::int64_t n) { servers.arm({.replaceWord = n, .replacement = word}); },
          [this] { return servers.wordsSent(); });
}

TEST_P(Sweeping, everySystemCallFails) {
  for (const int error : {EINTR, EAGAIN, ECONNRESET, EMFILE, ENOSPC})
    sweep([error](std::int64_t n) { failCall(n + 1, error); }, callsMade);
}

INSTANTIATE_TEST_SUITE_P(guards, Sweeping, testing::Values("none", "all,-stall"));
