#include "proxy/proxy_props.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <deque>

#include "context/vesk_error.h"
#include "properties/vesk_property.h"
#include "proxy/wire.h"
#include "proxy_fixture.h"

// One fetch on a proxy of its own: the table, the number, the error, what is in
// the pool, how many lines the log got and how many of them are `line`.
static std::string fetch(RecordedRequest& t, const char* line) {
  veskProxy* proxy = newServingProxy(t.req);
  if (!proxy) return "no proxy";
  std::int32_t sequence = 0;
  propertyTable* table = proxy->fetchProps(t.req, proxy, "clustered-servers", &sequence);
  std::string told = table ? "" : "null ";
  for (std::int32_t i = 0; table && i < table->count; ++i)
    told += std::string(table->entries[i].key) + "=" + table->entries[i].value + " ";
  told += numbers({sequence, t.req->lastError}) +
          (proxy->pool->freeConnections ? "pooled " : "dropped ") +
          numbers({t.logged(""), t.logged(line)});
  freeProperties(t.req, table);
  (void)proxy->destroyInetProxy(proxy, t.req);
  return told;
}

TEST(fetchProps, onlyAFinishedAnswerCounts) {
  const ScriptStep end = put(PROXY_FINISH);
  const ScriptStep seven = put(PROXY_PUT_CLUSTER_SEQ, word(7));
  const ScriptStep none = put(PROXY_PUT_CLUSTER_SEQ, word(-1));
  const ScriptStep a = putProps("a=1");
  const ScriptStep b = putProps("b=2\nc=3");
  const std::tuple<const char*, Script, const char*, const char*> rows[] = {
      {"set, number", {b, seven, end}, "", "b=2 c=3 7 0 pooled 0 0 "},
      {"number, set", {seven, none, a, end}, "", "a=1 -1 0 pooled 0 0 "},
      {"two sets", {a, b, end}, "", "b=2 c=3 -1 0 pooled 0 0 "},
      {"empty set", {putProps(""), end}, "", "-1 0 pooled 0 0 "},
      {"no set", {seven, end}, "", "null 7 0 pooled 0 0 "},
      {"busy", {a, put(38)}, "[1001], proxy busy", "null -1 -10 dropped 1 1 "},
      {"other talk", {put(8)}, "command 8 <- [1001] whi", "null -1 0 dropped 1 1 "},
      {"word of 0", {a, put(0)}, "", "null -1 0 dropped 0 0 "},
      {"no text", {put(PROXY_PUT_PROPS, word(-5))}, "", "null -1 0 dropped 0 0 "},
      {"no number", {put(40), hangUp()}, "Failed to read", "null -1 104 dropped 1 1 "},
      {"lost", {a, hangUp()}, "command error: 104", "null -1 104 dropped 1 1 "},
  };
  const Script asked = {expectPing(), expectGetProps("clustered-servers")};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::get<0>(row));
    const char* line = std::get<2>(row);
    EXPECT_EQ(playEveryWay(asked + std::get<1>(row),
                           [line](RecordedRequest& t) { return fetch(t, line); }),
              std::get<3>(row));
  }
}

// Every connect gives one end of a pair on whose other end the next answer waits whole.
class RealSocket : public testing::Test {
 protected:
  RealSocket() {
    answers.clear();
    t.req->connect = [](vesk_request*, const sockaddr_in*) {
      int pair[2] = {-1, -1};
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
      const std::string answer = answers.empty() ? "" : answers.front();
      if (!answers.empty()) answers.pop_front();
      EXPECT_EQ(write(pair[1], answer.data(), answer.size()), ssize_t(answer.size()));
      serverEnds.push_back(pair[1]);
      return std::int32_t{pair[0]};
    };
    proxy = newServingProxy(t.req);
  }
  ~RealSocket() override {
    (void)proxy->destroyInetProxy(proxy, t.req);
    for (const int end : serverEnds) (void)close(end);
    serverEnds.clear();
  }
  std::string fetchValue() {
    propertyTable* table = proxy->fetchProps(t.req, proxy, "x", nullptr);
    const char* value = getPropertyValue(table, "a");
    const std::string told = value ? value : "none";
    freeProperties(t.req, table);
    return told;
  }
  static inline std::deque<std::string> answers;
  static inline std::vector<int> serverEnds;
  RecordedRequest t;
  veskProxy* proxy;
};

// Else each later question would get the answer before its own.
TEST_F(RealSocket, whatFollowsTheEndIsNoAnswerToTheNextQuestion) {
  const std::string one = putProps("a=1").bytes + put(PROXY_FINISH).bytes;
  const std::string stray = putProps("a=stray").bytes + put(PROXY_FINISH).bytes;
  answers = {one + stray, putProps("a=2").bytes + put(PROXY_FINISH).bytes};
  EXPECT_EQ(fetchValue(), "1");
  EXPECT_EQ(t.logged("127.0.0.1:7001 sent 19 bytes behind PROXY_FINISH <- ["), 1);
  EXPECT_EQ(fetchValue(), "2");
  EXPECT_EQ(t.logged(""), 1);
}

TEST(fetchProps, withoutMemoryForTheFrameNothingIsSent) {
  TestRequest t({});
  t.failAllocation = t.allocations + 1;
  EXPECT_EQ(t.proxy->fetchProps(t.req, t.proxy, "x", nullptr), nullptr);
  EXPECT_EQ(t.req->lastError, ENOBUFS);
  EXPECT_EQ(t.traced("127.0.0.1:7001 could not fetch x"), 1);
}
