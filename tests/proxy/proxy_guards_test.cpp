// What a proxy does with and without each guard.
#include <gtest/gtest.h>

#include <cerrno>

#include "context/guards.h"
#include "context/sockets.h"
#include "context/vesk_error.h"
#include "properties/vesk_property.h"
#include "proxy/proxy_marshal.h"
#include "proxy/proxy_pool.h"
#include "proxy/proxy_service.h"
#include "proxy/replay.h"
#include "proxy/request_outcome.h"
#include "proxy/wire.h"
#include "proxy_fixture.h"

static std::int32_t handle(TestRequest& t) {
  return proxy_handleRequest(t.req, t.proxy, nullptr, nullptr);
}

static void guardBy(TestRequest& t, const char* guards) {
  t.req->guards = readGuards(guards).mask;
}

const Script kFrameGone = {expectFrame(PROXY_SERVICE_40), hangUp(), expectClose()};
const Script kNewServes = {expectPing(), expectFrame(PROXY_SERVICE_40),
                           put(PROXY_FINISH)};

// One request on a pool whose youngest connection has `found` in it: what the log says,
// what is left of the pool, and the error that a connect in a retry pause would see.
static std::string useUnquiet(const char* guards, std::int32_t found,
                              const Script& script) {
  static std::int32_t look;
  look = found;
  TestRequest t(script, 2);
  guardBy(t, guards);
  t.req->peek = [](vesk_request*, std::int32_t) {
    return std::exchange(look, kIdleQuiet);
  };
  t.req->connect = [](vesk_request* req, const sockaddr_in*) -> std::int32_t {
    req->lastError = ECONNREFUSED;
    return -1;
  };
  const std::int32_t result = handle(t);
  return numbers({result, t.logged(" an idle connection [1002], which is not used")}) +
         t.state();
}

TEST(latebytes, idleConnectionIsLookedAtBeforeItIsUsed) {
  const Script old = {expectFrame(PROXY_SERVICE_40), put(PROXY_FINISH)};
  const Script next = {expectClose(kFirstSocket + 1), expectFrame(PROXY_SERVICE_40),
                       put(PROXY_FINISH)};
  const Script both = {expectClose(), expectClose()};
  EXPECT_EQ(useUnquiet("none", kIdleBytes, old), "0 0 2 idle");
  EXPECT_EQ(useUnquiet("latebytes", kIdleQuiet, old), "0 0 2 idle");
  EXPECT_EQ(useUnquiet("latebytes", kIdleBytes, next), "0 1 1 idle");
  // A server that closed one has closed all: a new one is tried.
  EXPECT_EQ(useUnquiet("latebytes", kIdleEnded, both), "-1 1 0 idle, out of service");
}

TEST(replay, frameGoesOutAgainOnlyWhereThatDoesNoHarm) {
  // The guards, the method, whether another connection is tried.
  constexpr std::tuple<const char*, const char*, bool> kRows[] = {
      {"none", "POST", true},     {"replay", "GET", true},   {"replay", "HEAD", true},
      {"replay", "PUT", true},    {"replay", "POST", false}, {"replay", "PATCH", false},
      {"replay", nullptr, false},
  };
  for (const auto& [guards, method, again] : kRows) {
    TestRequest t(again ? kFrameGone + kNewServes : kFrameGone, 1);
    guardBy(t, guards);
    t.req->method = method;
    EXPECT_EQ(handle(t), again ? 0 : -1) << guards << method;
    EXPECT_EQ(t.logged("not sent again: it may have been carried out"), again ? 0 : 1);
    EXPECT_EQ(mayReplay(t.req), again);
  }
}

TEST(replay, refusedConnectAndABusyServerWithoutABodyAreSafe) {
  const Script frame = {expectPing(), expectFrame(PROXY_SERVICE_40)};
  const Script takes = {put(PROXY_GET_DATA, word(9)),
                        expectBytes(word(PROXY_PUT_DATA) + text("body"))};
  const Script busy = {put(PROXY_BUSY), expectClose()};
  const std::pair<Script, bool> rows[] = {
      {{failConnect(ECONNREFUSED)}, true},
      {frame + busy, true},
      {frame + takes + busy, false},
      {frame + Script{hangUp(), expectClose()}, false},
      {{expectConnect(), expectPing(), failSend(EPIPE), expectClose()}, true},
  };
  for (const auto& [script, safe] : rows) {
    TestRequest t(script);
    guardBy(t, "replay");
    t.req->method = "POST";
    t.req->hasPostData = 1;
    t.postData = "body";
    EXPECT_EQ(handle(t), -1);
    EXPECT_EQ(mayReplay(t.req), safe) << t.all();
  }
}

// To the next server the part that came would look like all of it.
TEST(replay, bodyThatBrokeOffIsSentToNobodyElse) {
  for (const bool guarded : {false, true}) {
    TestRequest t(
        {expectPing(), expectFrame(PROXY_SERVICE_40), put(PROXY_GET_DATA, word(9)),
         expectBytes(word(PROXY_PUT_DATA) + word(-1)), put(PROXY_BUSY), expectClose()});
    guardBy(t, guarded ? "replay" : "none");
    t.req->method = "PUT";
    t.req->hasPostData = 1;
    t.postBreaks = true;
    EXPECT_EQ(handle(t), -1);
    EXPECT_EQ(mayReplay(t.req), !guarded);
  }
}

// Two attempts at a PUT, the first of which dies behind a part of the body.
static std::string putTwice(const char* guards, std::size_t size, std::int32_t part,
                            const std::string& second) {
  const Script first = {expectPing(), expectFrame(PROXY_SERVICE_40),
                        put(PROXY_GET_DATA, word(part))};
  const std::string body(size, 'b');
  const Script dies = {
      expectBytes(word(PROXY_PUT_DATA) + text(body.substr(0, static_cast<size_t>(part)))),
      hangUp(), expectClose()};
  const Script gets = {expectPing(), expectFrame(PROXY_SERVICE_40),
                       put(PROXY_GET_DATA, word(kMaxBodyBytes)),
                       expectBytes(word(PROXY_PUT_DATA) + text(second)),
                       put(PROXY_FINISH)};
  TestRequest t(first + dies + gets);
  guardBy(t, guards);
  t.req->method = "PUT";
  t.req->hasPostData = 1;
  t.postData = body;
  t.req->deferError = 1;
  EXPECT_EQ(handle(t), -1);
  const bool may = mayReplay(t.req);
  EXPECT_EQ(handle(t), 0);
  endReplay(t.req);
  return may ? "may" : "may not";
}

TEST(replay, bodyGoesOutAgainFromItsFirstByteWhileItIsHeld) {
  EXPECT_EQ(putTwice("none", 6, 4, "bb"), "may");  // its rest alone
  EXPECT_EQ(putTwice("replay", 6, 4, "bbbb"), "may");
  EXPECT_EQ(putTwice("replay", 6, 6, "bbbbbb"), "may");
}

TEST(replay, bodyBeyondWhatIsHeldEndsIt) {
  const std::string block(kMaxBodyBytes, 'b');
  const Script ask = {put(PROXY_GET_DATA, word(kMaxBodyBytes)),
                      expectBytes(word(PROXY_PUT_DATA) + text(block))};
  for (const int blocks : {1, 2}) {
    Script script = {expectPing(), expectFrame(PROXY_SERVICE_40)};
    for (int i = 0; i < blocks; ++i) script = script + ask;
    TestRequest t(script + Script{hangUp(), expectClose()});
    guardBy(t, "replay");
    t.req->method = "PUT";
    t.req->hasPostData = 1;
    t.postData = block + block;
    EXPECT_EQ(handle(t), -1);
    EXPECT_EQ(mayReplay(t.req), blocks == 1);
    endReplay(t.req);
  }
}

// The browser's end fails while the page is written; the server only was busy.
TEST(blame, browsersErrorIsNotTheServers) {
  for (const bool guarded : {false, true}) {
    TestRequest t({expectFrame(PROXY_SERVICE_40), put(PROXY_BUSY), expectClose()}, 1);
    guardBy(t, guarded ? "blame" : "none");
    t.proxy->proxyRetryInterval = 60;
    t.req->writeClient = [](vesk_request* req, const char*, std::int32_t) {
      req->lastError = EHOSTUNREACH;
      return -1;
    };
    EXPECT_EQ(handle(t), -1);
    EXPECT_EQ(t.state(), guarded ? "0 idle" : "0 idle, out of service, retry 60");
  }
}

// The blocks that follow are taken again, and the server knows of nothing.
TEST(outcome, responseThatLacksABlockIsBroken) {
  for (const std::int32_t lost : {0, 1}) {
    TestRequest t({expectPing(), expectFrame(PROXY_SERVICE_40),
                   put(PROXY_PUT_CLIENT, text("one")), put(PROXY_PUT_CLIENT, text("two")),
                   put(PROXY_FINISH)});
    t.writesToFail = lost;
    EXPECT_EQ(handle(t), 0);
    endOutcome(t.req, true, 0);
    EXPECT_EQ(t.req->outcome.kind, lost ? kOutcomeBroken : kOutcomeServed);
    EXPECT_EQ(t.req->outcome.state[1], lost ? 'C' : '-');
  }
}

// A page behind half a response would look like a part of it.
TEST(partial, nothingIsWrittenBehindAResponseThatHasBegun) {
  for (const bool guarded : {false, true}) {
    TestRequest t({expectPing(), expectFrame(PROXY_SERVICE_40),
                   put(PROXY_PUT_CLIENT, text("half")), hangUp(), expectClose()});
    guardBy(t, guarded ? "partial" : "none");
    EXPECT_EQ(handle(t), -1);
    EXPECT_EQ(t.body == "half", guarded);
    EXPECT_EQ(t.req->outcome.kind, guarded ? kOutcomeBroken : kOutcomeFailed);
    EXPECT_EQ(
        t.logged("127.0.0.1:7001 failed behind the begin of its response, which ends "
                 "broken: 104 Connection reset by peer"),
        guarded ? 1 : 0);
  }
  TestRequest t({expectPing(), expectFrame(PROXY_SERVICE_40),
                 put(PROXY_PUT_CLIENT, text("half")), put(PROXY_PUT_CLIENT, word(-1)),
                 expectClose()});
  guardBy(t, "partial");
  EXPECT_EQ(handle(t), -1);
  EXPECT_EQ(t.logged("ends broken: Vesk connector protocol out of sync"), 1);
}

TEST(attempt, whatTheServerSaidIsTakenBackBeforeThePage) {
  for (const bool guarded : {false, true}) {
    TestRequest t({expectPing(), expectFrame(PROXY_SERVICE_40),
                   put(PROXY_PUT_HEADER_VALUE, text("content-length"), text("3")),
                   put(PROXY_BUSY), expectClose()});
    guardBy(t, guarded ? "attempt" : "none");
    t.req->restoreResponse = [](vesk_request* req) {
      static_cast<RecordedRequest*>(req->rq)->responseHeaders.clear();
    };
    EXPECT_EQ(handle(t), -1);
    EXPECT_EQ(t.responseHeaders.size(), guarded ? 1U : 2U) << response(t);
  }
}

TEST(idle, oldConnectionsGoWhenThePoolIsNextTouched) {
  for (const bool guarded : {false, true}) {
    TestRequest t({}, 3);
    guardBy(t, guarded ? "idle" : "none");
    VeskConnection* used = getVeskConnectionFromPool(t.proxy, t.req);
    testNow += veskIdleTimeout - 1;
    returnVeskConnectionToPool(t.req, t.proxy, used);
    closeAgedConnections(t.req, t.proxy);
    EXPECT_EQ(t.state(), "3 idle");
    testNow += 1;  // the two that were not used have lain for all of the time
    returnVeskConnectionToPool(t.req, t.proxy, getVeskConnectionFromPool(t.proxy, t.req));
    EXPECT_EQ(t.state(), guarded ? "1 idle" : "3 idle");
  }
}

// The time ends while a slow server works: nobody else is asked, and it isn't blamed.
TEST(requesttimeout, endsWithTheConnectionOnWhichItPassed) {
  TestRequest t({expectFrame(PROXY_SERVICE_40), expectClose()}, 3);
  t.req->deadline = t.req->ticks(t.req) + 60000;
  t.req->recv = [](vesk_request* req, std::int32_t, void*, std::int32_t, veskProxy*) {
    req->deadline = req->ticks(req);
    req->lastError = ETIMEDOUT;
    return -1;
  };
  EXPECT_EQ(handle(t), -1);
  EXPECT_EQ(t.status, 504);
  EXPECT_EQ(t.state(), "2 idle");
}

TEST(maxperserver, serverWithEnoughToDoCountsAsBusy) {
  for (const std::int32_t limit : {0, 1, 2}) {
    const bool full = limit == 1;
    TestRequest t(full ? Script{} : kNewServes);
    veskMaxPerServer = limit;
    t.proxy->conversations = 1;  // another request's, and all while a page is written
    t.req->setStatus = [](vesk_request* req, std::int32_t, const char*) {
      const auto* test =
          static_cast<TestRequest*>(static_cast<RecordedRequest*>(req->rq));
      EXPECT_EQ(test->proxy->conversations, 1);
    };
    EXPECT_EQ(handle(t), full ? -1 : 0);
    EXPECT_EQ(t.req->lastError, full ? EVESK_BUSY : 0);
    EXPECT_EQ(t.proxy->conversations, 1);
    veskMaxPerServer = 0;
  }
}
