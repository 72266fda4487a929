// Every scenario with every allocation, byte, word and system call going wrong once, with
// guards and without: nothing may crash, hang or be left behind, and once the fault is
// over the next requests are served.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include "context/events.h"
#include "context/guards.h"
#include "maptable/table_lifecycle.h"
#include "playing_servers.h"
#include "proxy/replay.h"
#include "proxy/wire.h"
#include "support/recorded_request.h"
#include "system_calls.h"

constexpr char kPage[] = "a page";
constexpr char kServerProps[] = "mapcheck=5\nproxyretryinterval=1\nrep_id=id01";

static Answer page(std::int32_t sequence) {
  Answer answer;
  answer.word(PROXY_PUT_STATUS).word(200).text("OK");
  answer.word(PROXY_PUT_HEADER).text("A: 1\r\nB: 2\r\n");
  answer.word(PROXY_PUT_HEADER_VALUE).text("C").text("3");
  answer.word(PROXY_GET_HEADER).text("HOST").word(PROXY_GET_REALPATH).text("/a");
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

static std::atomic<std::int64_t> testNow = 1000000;

class Sweep : public testing::TestWithParam<const char*> {
 protected:
  Sweep()
      : servers(3), store(testing::TempDir() + "vesk-sweep-" + std::to_string(getpid())) {
    veskMetrics = 1;
    setUp(&t);
    openEvents(t.req);
    for (std::size_t i = 0; i < 3; ++i)
      servers.answer(i, "server-props", props(kServerProps));
    list(2, 1);
  }
  ~Sweep() override {
    mappingsTableDelete(table, t.req);
    closeEvents(t.req);
    EXPECT_EQ(t.permBlocks + t.leaks(), 0);
    std::filesystem::remove(store);
    veskMetrics = 0;
  }

  // Makes a record that of a browser's request.
  static void setUp(RecordedRequest* browser) {
    browser->req->now = [](vesk_request*) { return testNow.load(); };
    browser->req->guards = readGuards(GetParam()).mask;
    browser->req->method = "GET";
    browser->req->uri = "/all/a;JSESSIONID=none";
    browser->realPaths = {{"/a", "/www/a"}};
    browser->variables = {{"HOST", "front"}};
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
  bool request(RecordedRequest* browser) {
    vesk_request* req = browser->req;
    req->lastError = req->responseStarted = req->clientWriteFailures = 0;
    req->replay = {};
    browser->body.clear();
    browser->postData = "body";
    req->hasPostData = 1;
    bool served = table->initTable(table, req) == 0;
    const std::int32_t index = served ? table->filterRequest(table, req, 1) : -1;
    served = index >= 0 && table->handleRequestWithIndex(table, req, nullptr, index) == 0;
    req->freeAttributes(req);
    req->freeAttributeNames(req);
    releaseKeptBlocks(req);
    endReplay(req);
    return served && browser->body == kPage;
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
    for (testNow += 20; !request(&t) && tries < 4; ++tries) testNow += 20;
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
    (void)request(&t);
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
        (void)request(&t);
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

// Else each later question would get the answer before its own.
TEST_P(Sweeping, whatFollowsTheEndIsNoAnswerToTheNextQuestion) {
  Answer strays = props(kServerProps);
  strays.word(PROXY_PUT_PROPS).text("/stray=x").word(PROXY_FINISH);
  for (std::size_t i = 0; i < 2; ++i) servers.answer(i, "server-props", strays);
  begin();
  EXPECT_TRUE(request(&t));
  EXPECT_EQ(serving(), whole);
  EXPECT_GE(t.logged(servers.name(1) + " sent 20 bytes behind PROXY_FINISH <- ["), 1);
}

TEST_P(Sweeping, manyRequestsAtOnceLoseNothingWhileServersComeAndGo) {
  begin();
  ASSERT_TRUE(request(&t));
  constexpr int kThreads = 4, kRounds = 200;
  std::atomic<int> served = 0, running = kThreads;
  std::atomic<std::int64_t> blocks = 0;
  const auto browse = [&] {
    RecordedRequest browser;
    setUp(&browser);
    veskProxy* first = table->masterList.proxies[0];
    for (int i = 0; i < kRounds; ++i, testNow += 6) {  // each finds refreshes due
      (void)first->refreshMappings(first, browser.req);
      served += request(&browser) ? 1 : 0;
    }
    EXPECT_EQ(browser.leaks() + browser.logged("broken mutex"), 0);
    blocks += browser.permBlocks;
    --running;
  };
  std::thread threads[kThreads];
  for (std::thread& each : threads) each = std::thread(browse);
  for (int i = 0; running > 0; ++i) {
    list(i % 2 ? 2 : 3, i % 2 ? 1 : 2);
    servers.arm({.cutAfter = i * 37 % 2000});
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (std::thread& each : threads) each.join();
  t.permBlocks += blocks;  // the table's memory, whoever asked for it
  EXPECT_GT(served, kThreads * kRounds / 2);
  list(3, 2);
  for (const char* request : {"joins them\n", "refreshes them\n"})
    expectRecovery(request);
  EXPECT_EQ(serving(), whole);
}

INSTANTIATE_TEST_SUITE_P(guards, Sweeping, testing::Values("none", "all,-stall"));
