// What the table does with and without each guard.
#include <cerrno>
#include <thread>

#include "context/guards.h"
#include "context/vesk_error.h"
#include "fake_cluster.h"
#include "maptable/cluster_update.h"
#include "maptable/maintenance.h"
#include "maptable/maintenance_queue.h"
#include "proxy/proxy_pool.h"

static std::int64_t testNow;

class Guarding : public MapTable {
 protected:
  Guarding() {
    testNow = 1000000;
    t.req->now = [](vesk_request*) { return testNow; };
    t.req->uri = "/demo/a";
  }
  void guardBy(const char* names) {
    t.req->guards = readGuards(names).mask;
  }
  std::int32_t serve() {
    return table->handleRequestWithIndex(table, t.req, nullptr, 0);
  }
  void filter() {
    (void)table->filterRequest(table, t.req, 1);
  }
  // Two servers, both of which fail the next request.
  void joinTwoThatFail() {
    for (const char* name : {"a:1", "b:1"}) {
      join(name);
      cluster[name].replies = {{ECONNRESET}, {ECONNRESET}};
    }
  }
  FakeServer& a = cluster["a:1"];
  FakeServer& b = cluster["b:1"];
};

TEST_F(Guarding, whatForbidsAnotherAttemptAndHowTheBrowserIsTold) {
  struct Row {
    const char* guards;
    std::int32_t started, frameSent;
    std::int64_t deadline;
    const char *asked, *why;
    int status;
  };
  constexpr Row kRows[] = {
      {"none", 1, 1, 0, "a:1 b:1 a:1 ", "", 0},
      {"attempt", 0, 0, 0, "a:1 b:1 a:1 ", "returning error page for 104", 503},
      {"partial", 0, 0, 0, "a:1 b:1 a:1 ", "", 0},
      {"partial", 1, 0, 0, "a:1 ", "which ends broken", 0},
      {"replay", 0, 0, 0, "a:1 b:1 a:1 ", "", 0},
      {"replay", 0, 1, 0, "a:1 ", "not sent again: it may have been", 503},
      {"none", 0, 0, 1, "a:1 ", "returning error page", 504},
  };
  t.req->method = "POST";
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.guards);
    makeTable(nullptr, nullptr);
    joinTwoThatFail();
    cluster.forwarded.clear();
    t.logLines.clear();
    t.status = 0;
    t.req->outcome = {};
    t.req->replay = {};
    guardBy(row.guards);
    t.req->responseStarted = row.started;
    t.req->replay.frameSent = row.frameSent;
    t.req->deadline = row.deadline;
    EXPECT_EQ(serve(), kRequestFailed);
    EXPECT_EQ(cluster.forwarded, row.asked);
    EXPECT_EQ(t.status, row.status);
    EXPECT_GE(t.logged(row.why), 1) << t.all();
    EXPECT_EQ(t.req->outcome.attempts, row.asked == std::string("a:1 ") ? 1 : 3);
    t.req->deadline = 0;
  }
}

// MIN chooses the same server again, which is as full as before.
TEST_F(Guarding, serverThatIsFullLeadsOnToOthers) {
  for (const std::int32_t limit : {0, 1}) {
    makeTable(nullptr, nullptr);
    a.algorithm = b.algorithm = BALANCE_MIN;
    a.weight = 0;
    a.replies = {{EVESK_BUSY}, {EVESK_BUSY}};
    join("a:1");
    join("b:1");
    cluster.forwarded.clear();
    veskMaxPerServer = limit;
    EXPECT_EQ(serve(), limit ? kRequestServed : kRequestFailed);
    EXPECT_EQ(cluster.forwarded, limit ? "a:1 b:1 " : "a:1 a:1 ");
    veskMaxPerServer = 0;
  }
}

TEST_F(Guarding, outcomeTellsWhoServedAndHowOften) {
  join("a:1");
  join("b:1");
  a.replies = {{EVESK_BUSY}};
  EXPECT_EQ(serve(), kRequestServed);
  EXPECT_EQ(t.req->outcome.kind, kOutcomeServed);
  EXPECT_EQ(t.req->outcome.attempts, 2);
  EXPECT_STREQ(t.req->outcome.server, "b:1");
  EXPECT_EQ(t.req->outcome.state[1], '-');
  t.req->uri = "/other";
  EXPECT_EQ(table->handleRequestWithIndex(table, t.req, nullptr, -1), kRequestNotOurs);
  EXPECT_EQ(t.req->outcome.kind, kOutcomeDeclined);
}

// Two servers, A001 and B002, of which a:1 has the first turn.
TEST_F(Guarding, outcomeTellsWhatBecameOfTheSession) {
  constexpr char kA[] = "JSESSIONID=A001xyTRB002; b=2";
  constexpr char kB[] = "JSESSIONID=B002xyTRA001";
  constexpr char kFresh[] = "JSESSIONID=A001zzTRB002; Path=/";
  struct Row {
    std::uint32_t sticky;
    const char* brought;
    Reply first;
    bool ownerGone;
    std::int32_t session;
    const char *server, *owner, *why;
  };
  const Row rows[] = {
      {1, "", {}, false, kSessionNone, "a:1", "", "none was brought"},
      {1, "", {.cookie = kFresh}, false, kSessionNew, "a:1", "", "the first visit"},
      {1, "", {.cookie = "JSESSIONIDX=1"}, false, kSessionNone, "a:1", "", "no session"},
      {1,
       "",
       {.error = ECONNRESET, .cookie = kFresh},
       false,
       kSessionNone,
       "b:1",
       "",
       "a cookie of an attempt that failed"},
      {1, kA, {}, false, kSessionKept, "a:1", "a:1", "the owner"},
      {1,
       kA,
       {.cookie = "JSESSIONID=A001xyTRC003; Path=/"},
       false,
       kSessionKept,
       "a:1",
       "a:1",
       "other buddies make no other session"},
      {1,
       kA,
       {.cookie = "JSESSIONID=; Max-Age=0"},
       false,
       kSessionKept,
       "a:1",
       "a:1",
       "the end of a session"},
      {1, kA, {.cookie = kFresh}, false, kSessionNew, "a:1", "a:1", "logged in"},
      {1, kA, {ECONNREFUSED, -1, true}, false, kSessionMoved, "b:1", "a:1", "tried"},
      {1,
       kB,
       {.cookie = "JSESSIONID=A001xyTRB002"},
       true,
       kSessionMoved,
       "a:1",
       "b:1",
       "out of service before, taken over"},
      {1, "JSESSIONID=C003xy", {}, false, kSessionMoved, "a:1", "", "nobody's"},
      {0, kA, {}, false, kSessionKept, "a:1", "a:1", "by chance"},
      {0, kB, {}, false, kSessionMoved, "a:1", "", "nothing looks for the owner"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    makeTable(nullptr, nullptr);
    a.sticky = b.sticky = row.sticky;
    a.replicationId = "A001";
    b.replicationId = "B002";
    join("a:1");
    veskProxy* second = join("b:1");
    if (row.ownerGone) setProxyActive(second, false);
    a.replies = {row.first};
    t.variables["cookie"] = row.brought;
    t.req->outcome = {};
    EXPECT_EQ(serve(), kRequestServed);
    EXPECT_EQ(t.req->outcome.session, row.session);
    EXPECT_STREQ(t.req->outcome.server, row.server);
    const veskProxy* owner = t.req->outcome.sessionOwner;
    EXPECT_STREQ(owner ? owner->name : "", row.owner);
  }
}

// The list names a server that is down at the first request.
TEST_F(Guarding, memberThatWasDownAtTheStartComesBackByItself) {
  for (const bool guarded : {false, true}) {
    makeTable(nullptr, "boot:1");
    guardBy(guarded ? "comeback" : "none");
    cluster["boot:1"].clustered = {"a:1", "b:1"};
    cluster["boot:1"].listSequence = a.listSequence = 5;
    a.clustered = {"a:1", "b:1"};
    a.up = true;
    b.up = false;
    a.lists = 0;
    EXPECT_EQ(table->initTable(table, t.req), 0);
    EXPECT_EQ(table->clusterSeq, guarded ? 0 : 5);
    cluster.asked.clear();
    for (int i = 0; i < 3; ++i)
      updateClusteredServers(table, t.req, table->masterList.proxies[0], 5);
    EXPECT_EQ(table->clusterSeq, 5);
    EXPECT_EQ(a.lists, guarded ? 1 : 0);
    b.up = true;
    testNow += kShortPause - 1;
    filter();
    EXPECT_EQ(cluster.asked, "") << "its pause isn't over";
    testNow += 1;
    filter();
    EXPECT_EQ(names(table->masterList), guarded ? " a:1 b:1" : " a:1");
  }
}

// The list goes on naming a server that is dead. Replies bring its number again and
// again, since each removal clears it.
TEST_F(Guarding, deadServerThatTheListNamesIsTriedOnceAPause) {
  for (const bool guarded : {false, true}) {
    makeTable(nullptr, nullptr);
    guardBy(guarded ? "comeback" : "none");
    veskProxy* living = join("a:1");
    join("b:1");
    a.clustered = {"a:1", "b:1"};
    a.listSequence = 5;
    b.up = false;
    b.questions = 0;
    cluster.forwarded.clear();
    for (int i = 0; i < 8; ++i) {
      t.req->lastError = 0;
      EXPECT_EQ(serve(), kRequestServed);
      updateClusteredServers(table, t.req, living, 5);
    }
    const bool often = cluster.forwarded.find("b:1 a:1 b:1") != std::string::npos;
    EXPECT_EQ(often, !guarded) << cluster.forwarded;
    EXPECT_EQ(b.questions, 0);
    testNow += kShortPause;
    filter();
    EXPECT_EQ(b.questions, guarded ? 1 : 0);
    b.up = true;
    filter();
    EXPECT_EQ(b.questions, guarded ? 1 : 0) << "the next pause has begun";
    testNow += kShortPause;
    filter();
    EXPECT_EQ(names(table->masterList), " a:1 b:1");
  }
}

// The pool marks a server while no request is there to take it out of the table; or it
// comes back with mappings that the table has for another target.
TEST_F(Guarding, markedServerComesBackWhoeverMarkedIt) {
  for (const bool moved : {false, true}) {
    makeTable(nullptr, nullptr);
    a.mappings = b.mappings = "/demo*=demo";
    veskProxy* living = join("a:1");
    veskProxy* marked = join("b:1");
    guardBy("comeback");
    takeOutOfService(t.req, marked);
    if (moved) remove(marked);
    if (moved) update(living, "/demo*=new");
    testNow += kShortPause;
    b.refreshed = 0;
    b.mappings = moved ? "/demo*=new" : "/demo*=demo";
    filter();
    b.refreshed = 1;
    EXPECT_EQ(mappings().front().substr(moved ? 10 : 11), " a:1 b:1");
    EXPECT_TRUE(isProxyActive(marked));
  }
}

// Two that take every connection and never answer: meanwhile the others must be served.
TEST_F(Guarding, namesWhoseAttemptsOutlastThePauseAreTriedOnceEach) {
  static int attempts;
  static decltype(table->newProxy) make;
  guardBy("comeback");
  a.clustered = {"a:1", "b:1", "c:1"};
  b.up = cluster["c:1"].up = false;
  updateClusteredServers(table, t.req, join("a:1"), 6);
  testNow += kShortPause;
  attempts = 0;
  make = table->newProxy;
  table->newProxy = [](vesk_request* req) {
    testNow += kShortPause;
    if (++attempts == 9) setShuttingDown(true);  // else it would never end
    return make(req);
  };
  filter();
  setShuttingDown(false);
  EXPECT_EQ(attempts, 2);
}

// A server that left the list has no timer that brings it back; the list does.
TEST_F(Guarding, unlistedServerComesBackByTheListAlone) {
  guardBy("comeback");
  veskProxy* living = join("a:1");
  join("b:1");
  a.clustered = {"a:1"};
  a.listSequence = 5;
  updateClusteredServers(table, t.req, living, 5);
  EXPECT_EQ(names(table->masterList), " a:1 [b:1]");
  testNow += 100 * kShortPause;
  filter();
  EXPECT_EQ(names(table->masterList), " a:1 [b:1]");
  a.clustered = {"a:1", "b:1"};
  a.listSequence = 6;
  updateClusteredServers(table, t.req, living, 6);
  EXPECT_EQ(names(table->masterList), " a:1 b:1");
  EXPECT_EQ(b.questions, 1);
  // Nor has one that was out when it left the list.
  remove(table->masterList.proxies[1]);
  takeOutOfService(t.req, table->masterList.proxies[1]);
  a.clustered = {"a:1"};
  a.listSequence = 7;
  updateClusteredServers(table, t.req, living, 7);
  testNow += kShortPause;
  filter();
  EXPECT_EQ(names(table->masterList), " a:1 [b:1]");
}

// A cluster that is down as a whole: requests ask once a second, not each.
TEST_F(Guarding, lastDitchAsksOnceASecond) {
  for (const bool guarded : {false, true}) {
    makeTable(nullptr, nullptr);
    guardBy(guarded ? "comeback" : "none");
    a.up = b.up = true;
    join("a:1");
    join("b:1");
    a.up = b.up = false;
    EXPECT_EQ(serve(), kRequestFailed);  // it finds out
    a.pings = b.pings = a.questions = b.questions = 0;
    testNow += 1;
    for (int i = 0; i < 5; ++i) {
      t.req->lastError = 0;
      EXPECT_EQ(serve(), kRequestFailed);
    }
    EXPECT_EQ(a.pings + b.pings, guarded ? 0 : 10);
    EXPECT_EQ(a.questions + b.questions, guarded ? 2 : 0);
  }
}

// The rounds are made by hand here; requests only leave what is to be done.
TEST_F(Guarding, requestsLeaveTheWorkToTheThread) {
  guardBy("stall,comeback");
  makeTable(nullptr, "boot:1");
  cluster["boot:1"].clustered = {"a:1", "b:1"};
  cluster["boot:1"].listSequence = 5;
  a.up = b.up = true;
  ASSERT_EQ(openQueue(table, t.req), 0);
  maintainTable(table, t.req, {});
  EXPECT_EQ(table->initTable(table, t.req), 0);
  EXPECT_EQ(names(table->masterList), " a:1 b:1");

  const int before = a.refreshes + b.refreshes;
  filter();
  EXPECT_EQ(a.refreshes + b.refreshes, before);
  maintainTable(table, t.req, takeWork(table, 0));
  EXPECT_EQ(a.refreshes + b.refreshes, before + 2);

  a.clustered = {"a:1"};
  a.listSequence = 6;
  updateClusteredServers(table, t.req, table->masterList.proxies[0], 6);
  EXPECT_EQ(a.lists, 0);
  maintainTable(table, t.req, takeWork(table, 0));
  EXPECT_EQ(names(table->masterList), " a:1 [b:1]");

  a.up = false;
  EXPECT_EQ(serve(), kRequestFailed);  // finds a dead, and then nobody
  a.up = true;
  EXPECT_EQ(a.questions, 0);
  maintainTable(table, t.req, takeWork(table, 0));
  EXPECT_EQ(a.questions, 1);
  EXPECT_EQ(names(table->masterList), " a:1 [b:1]");
  closeQueue(table, t.req);
}

// A mapping that one server alone has had is no reason to ask the others.
TEST_F(Guarding, threadAsksThoseThatAreMissed) {
  guardBy("all");
  join("a:1", "/old*=old");
  for (const char* name : {"b:1", "c:1"}) {
    veskProxy* proxy = join(name, "/demo*=demo");
    remove(proxy);
    takeOutOfService(t.req, proxy);
  }
  setFilled(table);
  update(table->masterList.proxies[0], "/demo*=demo");
  ASSERT_EQ(openQueue(table, t.req), 0);
  EXPECT_EQ(serve(), kRequestFailed);
  maintainTable(table, t.req, takeWork(table, 0));
  EXPECT_EQ(b.questions + cluster["c:1"].questions, 0);
  closeQueue(table, t.req);
}

// Filled by the store, with all of whose servers gone: the bootstrap server, back by
// then, names those that have taken their place.
TEST_F(Guarding, threadAsksTheBootstrapServerWhenNobodyIsLeft) {
  guardBy("all");
  makeTable(nullptr, "boot:1");
  join("a:1");
  join("b:1");
  setFilled(table);
  cluster["boot:1"].clustered = {"c:1"};
  cluster["c:1"].up = true;
  a.up = b.up = false;
  ASSERT_EQ(openQueue(table, t.req), 0);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(serve(), kRequestFailed);
  maintainTable(table, t.req, takeWork(table, 0));
  EXPECT_EQ(names(table->masterList), " [a:1] [b:1] c:1");
  closeQueue(table, t.req);
}

// The servers behind the first one that serves may take their time.
TEST_F(Guarding, tableIsFilledOnceOneServerHasJoined) {
  static mappingsTable* filling;
  static std::string seen;
  static decltype(table->newProxy) make;
  guardBy("all");
  makeTable(nullptr, "boot:1");
  cluster["boot:1"].clustered = {"a:1", "b:1"};
  a.up = true;
  b.up = false;
  seen = "";
  filling = table;
  make = table->newProxy;
  table->newProxy = [](vesk_request* req) {  // of the bootstrap server, a and b
    seen += isFilled(filling) ? "filled " : "empty ";
    return make(req);
  };
  ASSERT_EQ(openQueue(table, t.req), 0);
  maintainTable(table, t.req, {});
  EXPECT_EQ(seen, "empty empty filled ");
  closeQueue(table, t.req);
}

// The real thread: a start that hangs costs a request half a second at most, and none at
// all once it is known to have failed.
TEST_F(Guarding, threadFillsTheTableWhileRequestsWaitForOneAttempt) {
  static std::atomic<int> attempts, recvTimeout;
  attempts = 0;
  makeTable(nullptr, "boot:1");
  cluster["boot:1"].clustered = {"a:1"};
  guardBy("stall");
  RecordedRequest model;
  model.req->guards = t.req->guards;
  model.req->recvTimeout = 1000;  // which pings would renew, for a request
  const auto makeProxy = table->newProxy;
  static decltype(table->newProxy) make;
  make = makeProxy;
  table->newProxy = [](vesk_request* req) {
    recvTimeout = req->recvTimeout;
    return ++attempts == 1 ? nullptr : make(req);  // the first attempt has no memory
  };
  startMaintenance(table, model.req);
  ASSERT_NE(table->maintenance, nullptr);
  int failures = 0;
  while (table->initTable(table, t.req) != 0 && ++failures < 1000)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(names(table->masterList), " a:1");
  EXPECT_EQ(recvTimeout, veskMaintenanceTimeout * 1000);
  EXPECT_LE(attempts, 3) << "a pause lies between two attempts";
  setShuttingDown(true);
  stopMaintenance(table, model.req);
  setShuttingDown(false);
  EXPECT_EQ(table->queue, nullptr);
  // What the thread made through its record is given back through the test's.
  t.permBlocks += model.permBlocks;
}
