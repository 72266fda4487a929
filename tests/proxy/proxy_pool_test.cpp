#include "proxy/proxy_pool.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "context/vesk_error.h"
#include "proxy/conversation.h"
#include "proxy/wire.h"
#include "proxy_fixture.h"

static VeskConnection* take(TestRequest& t) {
  return getVeskConnectionFromPool(t.proxy, t.req);
}

TEST(pool, lastReturnedIsHandedOutFirst) {
  TestRequest t({}, 2);
  VeskConnection* second = take(t);
  VeskConnection* first = take(t);
  EXPECT_EQ(second->socket, kFirstSocket + 1);
  EXPECT_EQ(first->socket, kFirstSocket);
  EXPECT_EQ(second->next, second);  // the mark of a pooled one
  returnVeskConnectionToPool(t.req, t.proxy, first);
  returnVeskConnectionToPool(t.req, t.proxy, second);
  EXPECT_EQ(second->next, first);  // and no self-link is left in the list
  EXPECT_EQ(first->next, nullptr);
}

// Loses one of three connections with that error: the state of the others.
static std::string lose(std::int32_t error) {
  TestRequest t({}, 3);
  VeskConnection* lost = take(t);
  t.proxy->proxyRetryInterval = 60;
  t.proxy->mapCheckInterval = 10;
  setProxyRetryTime(t.proxy, 5);
  setMapCheckTime(t.proxy, kNever);
  t.req->lastError = error;
  destroyVeskConnection(t.req, t.proxy, lost);
  EXPECT_LE(getMapCheckTime(t.proxy), testNow) << "a refresh is due";
  EXPECT_EQ(t.req->lastError, error);
  return t.state();
}

TEST(pool, errorOfALostConnectionDecidesTimerServiceAndFlush) {
  for (const int error : {0, int{EVESK_BUSY}, int{EVESK_PROTOCOL}, int{EVESK_CLIENT_DOWN},
                          ENOBUFS, ETIMEDOUT})
    EXPECT_EQ(lose(error), "2 idle") << error;
  for (const int error : {EPIPE, ECONNRESET, EBADF})
    EXPECT_EQ(lose(error), "0 idle") << error;
  for (const int error : {ECONNREFUSED, EHOSTDOWN, EHOSTUNREACH})
    EXPECT_EQ(lose(error), "0 idle, out of service, retry 60") << error;
}

// Fails to connect; the pause counts from the end of the attempt.
static std::string failToConnect(std::int32_t error) {
  static std::int32_t cause;
  cause = error;
  TestRequest t({});
  t.proxy->proxyRetryInterval = 10;
  t.req->connect = [](vesk_request* req, const sockaddr_in*) -> std::int32_t {
    testNow += 15;
    req->lastError = cause;
    return -1;
  };
  EXPECT_EQ(take(t), nullptr);
  EXPECT_EQ(t.req->lastError, error);
  EXPECT_EQ(t.traced("no sock added to pool"), 1);
  return t.state();
}

TEST(pool, failedConnectTakesTheServerOutOfService) {
  for (const int error : {ECONNREFUSED, ETIMEDOUT, EPIPE, EHOSTDOWN, EHOSTUNREACH})
    EXPECT_EQ(failToConnect(error), "0 idle, out of service, retry 10") << error;
  for (const int error : {ECONNRESET, EMFILE})
    EXPECT_EQ(failToConnect(error), "0 idle") << error;
}

TEST(pool, onlyARequestThatHasFailedHeedsThePause) {
  TestRequest t({expectPing()});
  setProxyRetryTime(t.proxy, testNow + 1);
  t.req->lastError = ECONNRESET;
  EXPECT_EQ(take(t), nullptr);
  EXPECT_EQ(t.req->lastError, ECONNRESET);
  EXPECT_EQ(t.tracedE("127.0.0.1:7001 connect deferred"), 1);
  t.req->lastError = 0;
  VeskConnection* connection = take(t);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(connection->next, nullptr);  // the mark of a new one
  returnVeskConnectionToPool(t.req, t.proxy, connection);
  EXPECT_EQ(t.state(), "1 idle");  // a whole connection clears the mark
}

TEST(pool, connectionThatCannotBeWelcomedIsClosed) {
  TestRequest t({expectConnect(), failSend(EPIPE), expectClose(), expectConnect(),
                 expectPing(), expectClose()});
  EXPECT_EQ(take(t), nullptr);
  EXPECT_EQ(t.state(), "0 idle, out of service");  // a broken pipe while connecting
  t.req->lastError = 0;
  t.failAllocation = t.allocations + 1;
  EXPECT_EQ(take(t), nullptr);
  EXPECT_EQ(t.req->lastError, ENOBUFS);
}

TEST(pool, shutdownHandsNothingOut) {
  TestRequest t({}, 1);
  t.req->lastError = EBADF;
  setShuttingDown(true);
  EXPECT_EQ(take(t), nullptr);
  setShuttingDown(false);
  EXPECT_EQ(t.req->lastError, EBADF);
  EXPECT_EQ(t.state(), "1 idle");
}

static const std::string kFrame = word(13) + "frame";

static VeskConnection* open(TestRequest& t, std::int32_t* command) {
  return sendCommand(t.proxy, t.req, kFrame.data(), 9, command);
}

TEST(sendCommand, staleConnectionsAreReplacedUntilANewOneAnswers) {
  // A time limit leaves the other idle connections alone, a broken pipe does not.
  TestRequest t(
      {expectBytes(kFrame), failRecv(ETIMEDOUT), expectClose(kFirstSocket + 2),
       failSend(EPIPE), expectClose(kFirstSocket), expectClose(kFirstSocket + 1),
       expectConnect(), expectPing(), expectBytes(kFrame), put(PROXY_FINISH)},
      3);
  std::int32_t command = 0;
  VeskConnection* connection = open(t, &command);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(command, PROXY_FINISH);
  EXPECT_EQ(connection->socket, kFirstSocket + 3);
  EXPECT_EQ(t.tracedE("127.0.0.1:7001 send was pooled, trying again"), 1);
  EXPECT_EQ(t.logged(""), 0);
  returnVeskConnectionToPool(t.req, t.proxy, connection);
}

TEST(sendCommand, newConnectionIsNotTriedTwice) {
  TestRequest t({expectPing(), failSend(EPIPE), expectClose(), expectPing(),
                 expectBytes(kFrame), putBytes("ab"), hangUp(), expectClose()});
  std::int32_t command = 0;
  EXPECT_EQ(open(t, &command), nullptr);
  EXPECT_EQ(t.logged(""), 0);
  EXPECT_EQ(open(t, &command), nullptr);
  EXPECT_EQ(t.logged("Vesk closed connection. [1002] dropped while sending command"), 1);
}
