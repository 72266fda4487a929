#include "proxy/proxy_refresh.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "context/vesk_mutex.h"
#include "properties/vesk_property.h"
#include "proxy/wire.h"
#include "proxy_fixture.h"

static Script mappingsOf(const char* properties) {
  return {expectGetProps("servlet-mappings"), putProps(properties), put(PROXY_FINISH)};
}

TEST(refreshMappings, runsWhenTheTimersSay) {
  // When the next check and the next retry are, and whether a refresh is due.
  const std::tuple<const char*, std::int64_t, std::int64_t, bool> rows[] = {
      {"overdue", testNow - 1, 0, true},
      {"due at this second", testNow, 0, true},
      {"not yet", testNow + 1, 0, false},
      {"never", kNever, 0, false},
      {"a retry pause", 0, testNow + 1, false},
      {"a retry that is due as well", 0, testNow, true}};
  for (const auto& [why, mapCheck, retry, due] : rows) {
    SCOPED_TRACE(why);
    TestRequest t(due ? mappingsOf("/a=1") : Script{}, due ? 1 : 0);
    setMapCheckTime(t.proxy, mapCheck);
    setProxyRetryTime(t.proxy, retry);
    EXPECT_EQ(t.proxy->refreshMappings(t.proxy, t.req), due ? 0 : 1);
  }
}

TEST(refreshMappings, installsASortedTableAndKeepsItWhenTheNextIsEmpty) {
  for (const std::int32_t interval : {0, 30}) {
    TestRequest t(mappingsOf("*.jsp=1\n/a/*=2") + mappingsOf("/b=3") + mappingsOf(""), 1);
    t.proxy->mapCheckInterval = interval;
    EXPECT_EQ(t.proxy->refreshMappings(t.proxy, t.req), 0);
    EXPECT_STREQ(t.proxy->mappings->entries[0].key, "/a*");
    EXPECT_EQ(getMapCheckTime(t.proxy), interval ? testNow + 30 : kNever);
    EXPECT_EQ(t.proxy->refreshMappings(t.proxy, t.req), 1);
    setMapCheckTime(t.proxy, 0);
    EXPECT_EQ(t.proxy->refreshMappings(t.proxy, t.req), 0);
    EXPECT_EQ(t.traced("will be refreshed every 30 seconds."), interval ? 1 : 0);
    EXPECT_EQ(t.traced("old mappings count: 2"), 1);
    EXPECT_EQ(t.traced("Deleting old mappings..."), 1);

    setMapCheckTime(t.proxy, 0);
    EXPECT_EQ(t.proxy->refreshMappings(t.proxy, t.req), -1);
    EXPECT_EQ(t.proxy->mappings->count, 1);
    EXPECT_STREQ(t.proxy->mappings->entries[0].key, "/b");
    const int wait = interval ? interval : 10;
    EXPECT_EQ(getMapCheckTime(t.proxy), testNow + wait);
    EXPECT_EQ(t.tracedE("checking again in " + std::to_string(wait) + " seconds"), 1);
  }
}

// Another thread that gets in between the first look and the lock: its deed is
// done at the moment the lock is entered.
static veskProxy* contended = nullptr;
static void enterBehindAnother(void* /*lock*/) {
  setMapCheckTime(contended, testNow + 100);
  setProxyRetryTime(contended, testNow + 100);
}
constexpr LockOperations kContendedLocks = {[]() -> void* { return nullptr; },
                                            enterBehindAnother, [](void*) {}};

TEST(refreshRace, whatAnotherThreadHasTakenIsLeftToIt) {
  TestRequest t({});
  contended = t.proxy;
  installLockOperations(&kContendedLocks);
  EXPECT_EQ(t.proxy->refreshMappings(t.proxy, t.req), -1);
  setProxyRetryTime(t.proxy, 1);
  EXPECT_EQ(t.proxy->isAlive(t.proxy, t.req), 0);
  installLockOperations(nullptr);
}

TEST(isAlive, pingsOnlyWhenARetryIsDue) {
  TestRequest t({expectPing(), expectPing()});
  EXPECT_EQ(t.proxy->isAlive(t.proxy, t.req), 0);  // not marked
  setProxyRetryTime(t.proxy, testNow + 1);
  EXPECT_EQ(t.proxy->isAlive(t.proxy, t.req), 0);  // in its pause
  EXPECT_EQ(t.backend.connects, 0);
  setProxyRetryTime(t.proxy, testNow);
  EXPECT_EQ(t.proxy->isAlive(t.proxy, t.req), 1);
  EXPECT_EQ(getProxyRetryTime(t.proxy), 0);
}

TEST(sendPing, staleConnectionsAreUsedUpBeforeANewOne) {
  TestRequest t({failSend(ETIMEDOUT), expectClose(kFirstSocket + 1), failSend(ETIMEDOUT),
                 expectClose(kFirstSocket), expectConnect(), expectPing(),
                 failSend(EPIPE), expectClose()},
                2);
  EXPECT_EQ(t.proxy->sendPing(t.proxy, t.req), 0);
  EXPECT_EQ(t.tracedE("127.0.0.1:7001 couldn't ping via ["), 3);
}
