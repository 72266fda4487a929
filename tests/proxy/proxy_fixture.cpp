#include "proxy_fixture.h"

#include <gtest/gtest.h>

#include <cstring>

#include "proxy/proxy_lifecycle.h"
#include "proxy/proxy_pool.h"

std::int64_t testNow = 1000000;

std::int64_t testClock(vesk_request* /*req*/) {
  return testNow;
}

Script operator+(Script first, const Script& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::string numbers(std::initializer_list<std::int64_t> list) {
  std::string text;
  for (const std::int64_t number : list) text += std::to_string(number) + " ";
  return text;
}

std::string response(const RecordedRequest& t) {
  std::string text = std::to_string(t.status) + t.reason + "\n";
  for (const auto& [name, value] : t.responseHeaders) text += name + "=" + value + "\n";
  return text + t.body;
}

veskProxy* newServingProxy(vesk_request* req) {
  veskProxy* proxy = veskProxyNew(req);
  proxy->balance = static_cast<proxyBalance*>(req->permMalloc(req, sizeof(proxyBalance)));
  *proxy->balance = {0, 0, 0, 0, nullptr, 1};
  // As a temp one the proxy gets its name and its pool, and no more.
  EXPECT_EQ(proxy->initProxy(proxy, req, "127.0.0.1:7001", 0, 1), 0);
  return proxy;
}

TestRequest::TestRequest(const Script& script, int idle)
    : backend(Script(static_cast<std::size_t>(idle), expectPing()) + script),
      proxy(newServingProxy(req)) {
  req->now = testClock;
  backend.attach(req);
  std::vector<VeskConnection*> connections;
  for (int i = 0; i < idle; ++i)
    connections.push_back(getVeskConnectionFromPool(proxy, req));
  for (VeskConnection* connection : connections)
    returnVeskConnectionToPool(req, proxy, connection);
}

TestRequest::~TestRequest() {
  (void)proxy->destroyInetProxy(proxy, req);
  req->freeAttributes(req);
  req->freeAttributeNames(req);
  releaseKeptBlocks(req);
  (void)backend.finished();
  EXPECT_EQ(requestBlocks, 0) << "request memory was left behind";
  EXPECT_EQ(permBlocks, 0) << "permanent memory was left behind";
  EXPECT_EQ(backend.openSockets(), 0) << "a socket was left open";
}

std::string TestRequest::state() const {
  int idle = 0;
  const VeskConnection* each = proxy->pool->freeConnections;
  for (; each && idle < 1000; each = each->next) ++idle;
  const std::int64_t retry = getProxyRetryTime(proxy);
  return std::to_string(idle) + " idle" +
         (isProxyActive(proxy) ? "" : ", out of service") +
         (retry ? ", retry " + std::to_string(retry - testNow) : "");
}
