#include "proxy/proxy_service.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "context/vesk_error.h"
#include "proxy/wire.h"
#include "proxy_fixture.h"

// A conversation on a new connection, from its frame on.
static Script service(const Script& answer) {
  return Script{expectPing(), expectFrame(PROXY_SERVICE_40)} + answer;
}

static Script asks(std::int32_t command, const std::string& operand,
                   const std::string& answer) {
  return {put(command, operand), expectBytes(answer)};
}

static std::int32_t handle(TestRequest& t) {
  return proxy_handleRequest(t.req, t.proxy, nullptr, nullptr);
}

static const Script kEveryCommand =
    service({}) + asks(PROXY_GET_HEADER, text("REMOTE_USER"), text("me")) +
    asks(PROXY_GET_HEADER, text("NO_SUCH"), text("")) +
    asks(PROXY_GET_REALPATH, text("/a"), text("/www/a")) +
    asks(PROXY_GET_REALPATH, text("/b"), text("")) +
    asks(PROXY_GET_DATA, word(4), word(PROXY_PUT_DATA) + text("uplo")) +
    Script{put(PROXY_SET_ATTRIBUTE, text("user"), text({"a\0b", 3})),
           put(PROXY_PUT_CLUSTER_SEQ, word(3)), put(PROXY_PUT_LOAD_VALUE, word(-2)),
           put(PROXY_PUT_STATUS, word(201), text("Made"))} +
    Script{put(PROXY_PUT_HEADER, text("A: 1\r\nB: 2\r\nC")),
           put(PROXY_PUT_HEADER_VALUE, text("D"), text(""))} +
    Script{put(PROXY_PUT_CLIENT, text({"x\0y", 3})), put(PROXY_PUT_CLIENT, text("")),
           put(PROXY_PUT_CLUSTER_SEQ, word(5)), put(PROXY_FINISH)};

TEST(serviceLoop, everyCommandDoesItsWork) {
  for (const std::int32_t piece : kPieces) {
    TestRequest t(kEveryCommand);
    t.backend.piece = piece;
    static int headersGivenBack;
    headersGivenBack = 0;
    t.req->freeHeader = [](vesk_request*, const char*) { ++headersGivenBack; };
    t.realPaths = {{"/a", "/www/a"}};
    t.variables = {{"REMOTE_USER", "me"}};
    t.req->hasPostData = 1;
    t.postData = "upload";
    std::int32_t sequence = 0;
    EXPECT_EQ(t.proxy->handleRequest(t.req, t.proxy, nullptr, &sequence), 0);
    EXPECT_EQ(headersGivenBack, kVariableCount + 2);
    EXPECT_EQ(numbers({sequence, t.proxy->balance->weight,
                       t.req->getAttributeSize(t.req, "user")}),
              "5 4294967294 3 ");
    EXPECT_EQ(response(t), "201Made\nA=1\nB=2\nD=\n" + std::string("x\0y", 3));
  }
}

// One send; the answer costs one read, and no memory but the frame.
TEST(serviceLoop, pooledRequestCostsOneSendAndOneAllocation) {
  TestRequest t({expectFrame(PROXY_SERVICE_40), put(PROXY_FINISH)}, 1);
  t.backend.sends = 0;
  const std::int64_t before = t.allocations;
  EXPECT_EQ(handle(t), 0);
  EXPECT_EQ(t.backend.sends, 1);
  EXPECT_EQ(t.backend.recvs, 1);
  EXPECT_EQ(t.allocations - before, 1);
  EXPECT_EQ(t.writes, 1);  // of length 0: it starts the response
  EXPECT_EQ(t.req->responseStarted, 0);
  EXPECT_EQ(t.state(), "1 idle");
}

TEST(serviceLoop, failureSendsThePageAndDropsTheConnection) {
  const char* protocol = "Vesk Connector Protocol Error";
  const char* closed = "Vesk closed connection";
  const char* connect = "Could not connect to Vesk Server";
  // The answer, lastError, the page, a line of the log.
  const std::tuple<Script, std::int32_t, const char*, const char*> rows[] = {
      {{put(PROXY_BUSY)}, EVESK_BUSY, "Application server is busy", ""},
      {{put(42)}, EVESK_PROTOCOL, protocol, "bad command: 42 <- [1001]"},
      {{put(PROXY_PUT_PROPS)}, EVESK_PROTOCOL, protocol, "command: 14"},
      {{put(0)}, 0, protocol, ""},
      {{put(-9)}, 0, protocol, ""},
      {{put(41, word(1)), hangUp()}, ECONNRESET, closed, "command error: 104"},
      {{put(PROXY_GET_DATA), hangUp()}, ECONNRESET, closed, "can't get"},
      {{put(40), hangUp()}, ECONNRESET, closed, "update from 127.0.0.1"},
      {{put(PROXY_PUT_STATUS), failRecv(ETIMEDOUT)}, ETIMEDOUT, connect, ""},
      {{put(8, word(0x7fffffff))}, ENOBUFS, protocol, "error == ENOBUFS"},
      {{put(8, word(-1))}, 0, protocol, ""},
      {{put(3, text("A")), failSend(EPIPE)}, EPIPE, closed, ""}};
  for (const auto& [answer, error, page, line] : rows) {
    TestRequest t(service(answer + Script{expectClose()}));
    t.proxy->destroyPooledSockets = [](vesk_request* req, veskProxy*) {
      EXPECT_EQ(req->responseStarted, 1) << "the page comes first";
    };
    EXPECT_EQ(handle(t), -1);
    EXPECT_EQ(t.req->lastError, error);
    EXPECT_EQ(t.status, 503);
    EXPECT_NE(t.body.find(page), std::string::npos) << t.body;
    EXPECT_GE(t.logged(line), 1) << line << t.all();
    EXPECT_EQ(t.state(), "0 idle");
  }
}

// What the browser has is not taken back; the connection is not used again. The
// next server of the cluster gets what the failed one has set.
TEST(serviceLoop, busyAfterBodyDropsTheConnectionAndKeepsTheAttribute) {
  TestRequest t(service({put(PROXY_SET_ATTRIBUTE, text("user"), text("me")),
                         put(PROXY_PUT_STATUS, word(200), text("OK")),
                         put(PROXY_PUT_CLIENT, text("half a page")), put(PROXY_BUSY),
                         expectClose()}) +
                service({put(PROXY_FINISH)}));
  t.req->deferError = 1;  // as in a cluster: no error page

  EXPECT_EQ(handle(t), -1);

  EXPECT_EQ(t.req->lastError, EVESK_BUSY);
  EXPECT_EQ(response(t), "200OK\nhalf a page");
  EXPECT_EQ(t.req->responseStarted, 1);
  EXPECT_EQ(t.logged("127.0.0.1:7001 deferred error: Application server is busy"), 1);
  EXPECT_EQ(t.state(), "0 idle");

  EXPECT_EQ(handle(t), 0);
  EXPECT_EQ(t.backend.lastFrame().substr(8, 18), word(18) + text("user") + text("me"));
}

TEST(serviceLoop, fiveLostWritesInARowEndTheAttemptWithoutAPage) {
  // Blocks, writes that fail, the end, the result, lastError, what gets through.
  const std::tuple<std::size_t, int, ScriptStep, int, int, const char*> rows[] = {
      {0, 1, put(PROXY_FINISH), 0, EVESK_CLIENT_DOWN, "0\n"},
      {5, 4, put(PROXY_FINISH), 0, 0, "0\nblock"},
      {5, 5, expectClose(), -1, EVESK_CLIENT_DOWN, "0\n"}};
  for (const auto& [blocks, lost, end, result, error, came] : rows) {
    const Script answer(blocks, put(PROXY_PUT_CLIENT, text("block")));
    TestRequest t(service(answer + Script{end}));
    t.writesToFail = lost;
    EXPECT_EQ(handle(t), result);
    EXPECT_EQ(t.req->lastError, error);
    EXPECT_EQ(response(t), came);
    EXPECT_EQ(t.state(), result == 0 ? "1 idle" : "0 idle");
  }
}

TEST(serviceLoop, failureBeforeAConnectionCallsForOnePage) {
  TestRequest t({failConnect(ECONNREFUSED)});
  std::int32_t sequence = 9;
  EXPECT_EQ(proxy_handleRequest(t.req, t.proxy, nullptr, &sequence), -1);
  EXPECT_EQ(sequence, -1);
  EXPECT_EQ(t.writes, 1);
  EXPECT_NE(t.body.find("Could not connect to Vesk Server."), std::string::npos);
  EXPECT_EQ(t.traced("destroying"), 0);
}
