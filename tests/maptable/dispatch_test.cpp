#include "maptable/dispatch.h"

#include <cerrno>

#include "context/vesk_error.h"
#include "fake_cluster.h"

// What a server does with its requests, a letter each.
static std::deque<Reply> repliesOf(const std::string& letters) {
  static const std::map<char, Reply> kReplies = {{'.', {}},
                                                 {'b', {EVESK_BUSY}},
                                                 {'r', {ECONNRESET}},
                                                 {'f', {ECONNREFUSED}},
                                                 {'u', {ECONNRESET, -1, true}},
                                                 {'x', {ECONNRESET, -1, false, true}},
                                                 {'c', {EVESK_CLIENT_DOWN}}};
  std::deque<Reply> replies;
  for (const char letter : letters) replies.push_back(kReplies.at(letter));
  return replies;
}

class Dispatching : public MapTable {
 protected:
  std::int32_t serve(std::int32_t index = 0) {
    return table->handleRequestWithIndex(table, t.req, nullptr, index);
  }
  // A test ends as every request does.
  void TearDown() override {
    EXPECT_EQ(t.req->sessionId, nullptr);
    EXPECT_EQ(t.req->deferError, 0);
  }

  FakeServer& a = cluster["a:1"];
  FakeServer& b = cluster["b:1"];
};

TEST_F(Dispatching, withoutAUsableIndexTheMappingIsFoundHere) {
  EXPECT_EQ(serve(), kRequestNotOurs);
  join("a:1");
  for (const std::int32_t index : {-1, INT32_MIN, 1, kMaxMappings, INT32_MAX}) {
    t.req->uri = "/demo/a";
    EXPECT_EQ(serve(index), kRequestServed) << index;
    t.req->uri = "/other";
    EXPECT_EQ(serve(index), kRequestNotOurs) << index;
  }
  EXPECT_EQ(t.traced("request not for Vesk."), 6);
  a.refreshes = cluster.ended = 0;
  EXPECT_EQ(serve(), kRequestServed);  // an index spares the filter
  EXPECT_EQ(a.refreshes, 0);
  EXPECT_EQ(cluster.ended, 1);
  t.req->uri = "/demo/a";
  EXPECT_EQ(table->handleRequest(table, t.req, nullptr), kRequestServed);
}

// The algorithm, the replies of each server, then: the results, who was asked,
// the servers afterwards, the status that the browser got.
using Replies = std::vector<const char*>;
static const std::tuple<int, Replies, std::string, const char*, const char*, int>
    kReplyRows[] = {
        // The only server sends its own page, and is tried again although it has left.
        {1, {"u."}, "-0", "a:1 a:1 ", " [a:1]", 503},
        // No server fails a request twice; the browser is left alone.
        {1, {"br", "br"}, "-", "a:1 b:1 a:1 ", " a:1 b:1", 0},
        // One that can't be reached leaves, a lost browser ends it.
        {1, {"u", ""}, "00", "a:1 b:1 b:1 ", " [a:1] b:1", 0},
        {1, {"c", ""}, "-", "a:1 ", " a:1 b:1", 0},
        // MIN gives the same server again. A second failure ends it, unless that server
        // takes no ping, refuses (although another thread has put it back) or is gone by
        // then: now each of the others has one try.
        {3, {"bb", ""}, "-", "a:1 a:1 ", " a:1 b:1", 0},
        {3, {"rr", ""}, "-", "a:1 a:1 ", " a:1 b:1", 0},
        {3, {"rx", ""}, "0", "a:1 a:1 b:1 ", " [a:1] b:1", 0},
        {3, {"ff", ""}, "0", "a:1 a:1 b:1 ", " a:1 b:1", 0},
        {3, {"ru", "b", "r"}, "-0", "a:1 a:1 b:1 c:1 b:1 ", " [a:1] b:1 c:1", 0}};

TEST_F(Dispatching, repliesDecideWhoIsAskedNext) {
  for (const auto& [algorithm, replies, results, asked, left, status] : kReplyRows) {
    SCOPED_TRACE(asked);
    makeTable(nullptr, nullptr);
    cluster.forwarded.clear();
    t.status = cluster.ended = 0;
    for (std::size_t i = 0; i < replies.size(); ++i) {
      const std::string name = std::string(1, "abc"[i]) + ":1";
      cluster[name].algorithm = static_cast<std::uint32_t>(algorithm);
      cluster[name].weight = static_cast<int>(i);
      cluster[name].replies = repliesOf(replies[i]);
      cluster[name].up = true;
      join(name);
    }
    for (const char result : results) EXPECT_EQ(serve(), result == '0' ? 0 : -1);
    EXPECT_EQ(cluster.forwarded, asked);
    EXPECT_EQ(names(table->masterList), left);
    EXPECT_EQ(t.status, status);
    EXPECT_EQ(cluster.ended, static_cast<int>(results.size()));
  }
  EXPECT_EQ(t.tracedE("a:1 handleRequest failed, error 104 "), 9);
  EXPECT_EQ(t.tracedE("a:1 already in failed target list"), 6);
  EXPECT_EQ(t.logged(" deferred error: "), 16);
  EXPECT_EQ(a.pings, 3);  // only after two resets
}

TEST_F(Dispatching, deadClusterGetsThePageAndServesAgainLater) {
  join("a:1");
  join("b:1");
  a.up = b.up = false;
  EXPECT_EQ(serve(), kRequestFailed);  // a, b; then neither is tried a second time
  EXPECT_EQ(cluster.forwarded, "a:1 b:1 ");
  EXPECT_EQ(t.status, 503);
  EXPECT_EQ(t.req->lastError, ETIMEDOUT);
  EXPECT_EQ(t.logged("NO servers reachable in cluster, start your bootstrap server "
                     "<null> or one of the servers in your store file <null>"),
            1);
  EXPECT_EQ(cluster.ended + a.pings + b.pings, 0);
  EXPECT_EQ(serve(), kRequestFailed);
  EXPECT_EQ(a.pings + b.pings, 2);
  b.up = true;
  EXPECT_EQ(serve(), kRequestServed);
  EXPECT_EQ(names(table->masterList), " [a:1] b:1");
}

// The last-ditch search for "*.jsp" brings a mapping in front of it, without a server for
// it and with one.
TEST_F(Dispatching, requestStaysWithItsMappingWhenOthersMoveIn) {
  cluster["boot:1"].clustered = {"new:1"};
  for (const bool brought : {false, true}) {
    cluster.forwarded.clear();
    makeTable(nullptr, "boot:1");
    join("a:1", "/a*=a\n*.jsp=j");
    join("b:1", "/a*=a");
    cluster["new:1"].mappings = brought ? "/in/front*=n\n*.jsp=j" : "/in/front*=n";
    a.replies = repliesOf(brought ? "u" : "u.");
    EXPECT_EQ(serve(1), brought ? kRequestServed : kRequestFailed);
    EXPECT_EQ(table->mappings->count, 3);
    EXPECT_EQ(cluster.forwarded, brought ? "a:1 new:1 " : "a:1 ");
    EXPECT_EQ(t.tracedE("couldn't find reachable server for *.jsp map"), 1);
  }
}

TEST_F(Dispatching, sequenceOfASuccessReachesTheCluster) {
  join("a:1");
  a.clustered = {"a:1"};
  a.listSequence = 5;
  a.replies = {{0, -1}, {0, 0}, {EVESK_BUSY, 5}, {0, 5}};
  for (const int result : {0, 0, -1}) EXPECT_EQ(serve(), result);
  EXPECT_EQ(t.tracedE("updateClusteredServers"), 1);
  EXPECT_EQ(t.tracedE("updateClusteredServers: seq 0, seen seq 0"), 1);
  EXPECT_EQ(a.lists, 0);
  EXPECT_EQ(serve(), kRequestServed);
  EXPECT_EQ(table->clusterSeq, 5);
}
