// Many threads on one proxy, with a server of a few lines behind the operations.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "properties/vesk_property.h"
#include "proxy/wire.h"
#include "proxy_fixture.h"

static std::atomic<int> openSockets;
static std::atomic<std::int64_t> permBlocks;  // of all threads
static thread_local std::string waiting;      // what the server has yet to send
static thread_local int answers = 0;

static std::int32_t takeFrame(vesk_request* req, std::int32_t /*sock*/,
                              const void* buffer, std::int32_t length) {
  req->lastError = 0;
  const std::int32_t command = getWord(static_cast<const char*>(buffer));
  if (command == PROXY_GET_PROPS)
    waiting = word(PROXY_PUT_PROPS) + text("/a/*=x\n/b=y") + word(PROXY_FINISH);
  if (command == PROXY_SERVICE_40)
    waiting = word(PROXY_PUT_LOAD_VALUE) + word(answers) + word(PROXY_FINISH);
  return length;
}

// Every eleventh read breaks off, which flushes the pool.
static std::int32_t giveAnswer(vesk_request* req, std::int32_t /*sock*/, void* buffer,
                               std::int32_t length, veskProxy* /*proxy*/) {
  req->lastError = ++answers % 11 == 0 ? ECONNRESET : 0;
  if (req->lastError) return -1;
  std::memcpy(buffer, waiting.data(), static_cast<std::size_t>(length));
  waiting.erase(0, static_cast<std::size_t>(length));
  return length;
}

static void useServer(vesk_request* req) {
  req->connect = [](vesk_request*, const sockaddr_in*) { return ++openSockets; };
  req->closeSocket = [](vesk_request*, std::int32_t) { --openSockets; };
  req->send = takeFrame;
  req->recv = giveAnswer;
}

static void hammer(veskProxy* proxy) {
  RecordedRequest t;
  useServer(t.req);
  for (int round = 0; round < 200; ++round) {
    (void)proxy->handleRequest(t.req, proxy, nullptr, nullptr);
    (void)proxy->refreshMappings(proxy, t.req);
    (void)proxy->isAlive(proxy, t.req);
    (void)proxy->sendPing(proxy, t.req);
    proxy->requestEnded(proxy, t.req);
  }
  permBlocks += t.permBlocks;
  EXPECT_EQ(t.leaks(), 0);
  EXPECT_EQ(t.logged("broken mutex"), 0);
}

TEST(proxyThreads, everySocketAndTableIsAccountedFor) {
  RecordedRequest t;
  useServer(t.req);
  veskProxy* proxy = newServingProxy(t.req);
  ASSERT_NE(proxy, nullptr);
  proxy->mapCheckInterval = 1;
  std::thread threads[4];
  for (std::thread& each : threads) each = std::thread(hammer, proxy);
  for (std::thread& each : threads) each.join();
  EXPECT_GT(openSockets, 0);
  ASSERT_NE(proxy->mappings, nullptr);
  EXPECT_EQ(proxy->mappings->count, 2);
  (void)proxy->destroyInetProxy(proxy, t.req);
  EXPECT_EQ(openSockets, 0);
  EXPECT_EQ(permBlocks + t.permBlocks, 0);
}
