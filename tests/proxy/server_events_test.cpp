#include "proxy/server_events.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <tuple>

#include "context/events.h"
#include "properties/vesk_property.h"
#include "proxy/proxy_pool.h"
#include "proxy_fixture.h"

// A table of patterns, a letter or more each; without a copy, for it is only read.
static propertyTable* tableOf(const std::vector<const char*>& patterns) {
  static propertyTable tables[2];
  static int next;
  propertyTable* table = &tables[next++ % 2];
  table->count = 0;
  for (const char* pattern : patterns)
    table->entries[table->count++].key = const_cast<char*>(pattern);
  return table;
}

TEST(serverEvents, mappingsThatCameAndWentAreTold) {
  using Patterns = std::vector<const char*>;
  const std::tuple<Patterns, Patterns, const char*, const char*> rows[] = {
      {{"/a*", "*.jsp"}, {"/a*", "*.jsp"}, "", "the same"},
      {{"/a*", "/b"}, {"/b", "/a*"}, "", "in another order"},
      {{"/old*", "/a"}, {"/a", "/shop*"}, " +/shop/* -/old/*", "as servers write them"},
      {{"*"}, {"//h/x*.do", "/b"}, " +//h/x/*.do +/b -*", "stars elsewhere"},
      {{"/a"}, {"/a", "/b\n*"}, " +/b?/*", "no control characters"},
  };
  for (const auto& [old, fresh, text, why] : rows) {
    EventText line;
    clearText(&line);
    addMappingChange(tableOf(old), tableOf(fresh), &line);
    EXPECT_STREQ(line.text, text) << why;
  }
}

TEST(serverEvents, stateIsToldWhereItChanges) {
  TestRequest t({}, 1);
  openEvents(t.req);
  EXPECT_TRUE(serverCameUp(t.req, t.proxy)) << "it joins, which the list tells";
  EXPECT_FALSE(serverCameUp(t.req, t.proxy));
  testNow += 11520;
  t.req->lastError = ETIMEDOUT;
  takeOutOfService(t.req, t.proxy);
  takeOutOfService(t.req, t.proxy);
  EXPECT_EQ(
      t.logged(
          "vesk server 127.0.0.1:7001 DOWN question: timed out (up 3h12m, 0 of 1 left)"),
      1);
  serverLostRequest(t.proxy, true);
  serverLostRequest(t.proxy, false);
  testNow += 41;
  VeskConnection* old = getVeskConnectionFromPool(t.proxy, t.req);
  returnVeskConnectionToPool(t.req, t.proxy, old);  // from before it went out
  setProxyActive(t.proxy, true);
  EXPECT_TRUE(isServerDown(t.proxy));
  old = getVeskConnectionFromPool(t.proxy, t.req);
  returnVeskConnectionToPool(t.req, t.proxy, old);
  EXPECT_FALSE(isServerDown(t.proxy));
  EXPECT_TRUE(serverWasUnlisted(t.req, t.proxy));
  serverWentDown(t.req, t.proxy, "connect");
  closeEvents(t.req);
  EXPECT_EQ(t.logged("vesk server"), 2) << "one that isn't listed is no news";
  EXPECT_EQ(
      t.logged("vesk server 127.0.0.1:7001 UP after 41s; 1 request moved, 1 failed"), 1);
}
