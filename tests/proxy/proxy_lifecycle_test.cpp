#include "proxy/proxy_lifecycle.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cerrno>

#include "properties/vesk_property.h"
#include "proxy/wire.h"
#include "proxy_fixture.h"

static Script serverOf(const char* properties, const char* mappings = "/a/*=x") {
  return {expectPing(),      expectGetProps("server-props"),     putProps(properties),
          put(PROXY_FINISH), expectGetProps("servlet-mappings"), putProps(mappings),
          put(PROXY_FINISH)};
}

// Sets a proxy up and tells what it has become: mapcheck, retry, weight, turns,
// algorithm, sticky, active, lines of an unknown algorithm, rep_id, mapping.
static std::string setUp(TestRequest& t, std::int32_t retryInterval) {
  veskProxy* proxy = veskProxyNew(t.req);
  std::string told = "failed";
  if (proxy->initProxy(proxy, t.req, "127.0.0.1:7001", retryInterval, 0) == 0) {
    EXPECT_EQ(proxy->metrics != nullptr, veskMetrics != 0);
    const proxyBalance& own = *proxy->balance;
    told = numbers({proxy->mapCheckInterval, proxy->proxyRetryInterval, own.weight,
                    own.turnsLeft, own.algorithm, own.sticky, own.active,
                    t.logged("algorithm min, defaulting to Round Robin")});
    told += own.replicationId ? own.replicationId : "-";
    told += proxy->mappings->entries[0].key;
  }
  (void)proxy->destroyInetProxy(proxy, t.req);
  return told;
}

TEST(initProxy, serverPropertiesBecomeFields) {
  // The properties, the connector's retry interval, and what setUp tells.
  constexpr std::tuple<const char*, const char*, int, const char*> kRows[] = {
      {"nothing said", "", 0, "10 600 1 1 1 1 1 0 -/a*"},
      {"the connector's interval stands in", "", 30, "10 30 1 1 1 1 1 0 -/a*"},
      {"0 wins", "proxyretryinterval=0\nmapcheck=0", 30, "0 0 1 1 1 1 1 0 -/a*"},
      {"all said",
       "mapcheck=5\nproxyretryinterval=7\nweight=3\nalgorithm=MAX\nsticky=false\nrep_id="
       "1",
       30, "5 7 3 3 4 0 1 0 1/a*"},
      {"no number is 0", "weight=many", 0, "10 600 0 0 1 1 1 0 -/a*"},
      {"32 bits", "weight=4294967295\nmapcheck=4294967301", 0,
       "5 600 -1 -1 1 1 1 0 -/a*"},
      {"capitals count", "sticky=FALSE\nalgorithm=min", 0, "10 600 1 1 1 1 1 1 -/a*"},
      {"another code", "algorithm=RANDOM_WEIGHTED", 0, "10 600 1 1 5 1 1 0 -/a*"}};
  veskMetrics = 1;
  for (const std::int32_t piece : kPieces)
    for (const auto& [why, properties, retry, told] : kRows) {
      TestRequest t(serverOf(properties));
      t.backend.piece = piece;
      EXPECT_EQ(setUp(t, retry), told) << why;
    }
  veskMetrics = 0;
}

TEST(initProxy, failureLeavesARecordThatCanBeDestroyed) {
  const std::string good = "127.0.0.1:7001";
  const std::pair<std::string, Script> rows[] = {
      {"127.0.0.1", {}},
      {std::string(40, '1') + ":1", {}},
      {good, {failConnect(ECONNREFUSED)}},
      {good, {expectPing(), expectGetProps("server-props"), put(PROXY_FINISH)}},
      {good, serverOf("weight=1", "")}};
  for (const auto& [server, script] : rows) {
    TestRequest t(script);
    veskProxy* proxy = veskProxyNew(t.req);
    EXPECT_EQ(proxy->initProxy(proxy, t.req, server.c_str(), 0, 0), -1);
    EXPECT_EQ(proxy->pool != nullptr, server == good);
    EXPECT_EQ(proxy->metrics, nullptr);  // they are switched off
    const char* line =
        proxy->pool ? "could not initialize proxy for " : "Invalid server ";
    EXPECT_EQ(t.logged(line + server), 1) << t.all();
    EXPECT_EQ(t.logged(""), 1);
    EXPECT_EQ(proxy->destroyInetProxy(proxy, t.req), 0);
  }
}

TEST(initProxy, serverTextGivesNameAndAddress) {
  const std::tuple<std::string, const char*, int> rows[] = {
      {"127.0.0.2:7002", "127.0.0.2", 7002},
      {"10.0.0.1: 80:9", "10.0.0.1", 80},
      {"10.0.0.1:65537", "10.0.0.1", 1},
      {"a.server.with.a.name:", "255.255.255.255", 0},
      {"10.0.0.1:" + std::string(80, '0') + "7", "10.0.0.1", 7}};
  for (const auto& [server, address, port] : rows) {
    TestRequest t({});
    veskProxy* proxy = veskProxyNew(t.req);
    EXPECT_EQ(proxy->initProxy(proxy, t.req, server.c_str(), 0, 1), 0);
    EXPECT_EQ(proxy->name, server.substr(0, 63));
    EXPECT_STREQ(inet_ntoa(proxy->pool->address.sin_addr), address);
    EXPECT_EQ(ntohs(proxy->pool->address.sin_port), port) << server;
    // A second call changes nothing, whatever its arguments.
    EXPECT_EQ(proxy->initProxy(proxy, t.req, "other", 5, 0), 0);
    EXPECT_EQ(t.traced("initialized temp proxy for " + server.substr(0, 63)), 1);
    EXPECT_EQ(t.traced("initialized proxy for "), 1);
    EXPECT_EQ(proxy->balance, nullptr);
    (void)proxy->destroyInetProxy(proxy, t.req);
  }
}

TEST(proxy, lastReferenceFreesIt) {
  TestRequest t({}, 1);
  EXPECT_EQ(t.proxy->addRef(t.proxy, t.req), 2);
  EXPECT_EQ(t.proxy->destroyInetProxy(t.proxy, t.req), 1);
  EXPECT_EQ(t.state(), "1 idle");
  EXPECT_EQ(t.proxy->release(t.proxy, t.req), 0);
  EXPECT_EQ(t.proxy->release(t.proxy, t.req), 0);  // never below
}

TEST(proxy, metricsCountBatchesAndAreReportedAtTheEnd) {
  veskMetrics = 1;
  TestRequest t(serverOf(""));
  veskProxy* proxy = veskProxyNew(t.req);
  ASSERT_EQ(proxy->initProxy(proxy, t.req, "127.0.0.1:7001", 0, 0), 0);
  EXPECT_EQ(proxy->metrics->startMillis, t.req->startTime);
  t.req->startTime -= 3000;
  proxy->metrics->batchStartMillis -= 40000;
  for (int i = 0; i < 19; ++i) proxy->requestEnded(proxy, t.req);
  EXPECT_EQ(proxy->metrics->batchAverageMillis, 0);
  proxy->requestEnded(proxy, t.req);
  EXPECT_NEAR(static_cast<double>(proxy->metrics->batchAverageMillis), 2000.0, 100.0);
  EXPECT_GE(proxy->metrics->lastResponseMillis, 3000);
  proxy->metrics->totalResponseMillis = 61000;
  veskMetrics = 0;
  proxy->requestEnded(proxy, t.req);  // switched off: not counted
  (void)proxy->destroyInetProxy(proxy, t.req);
  EXPECT_EQ(t.logged("\tAverage response time: 3050 ms"), 1);
  EXPECT_EQ(t.logged("\tTotal Requests handled: 20"), 1);
}
