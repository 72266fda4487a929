#include "maptable/table_events.h"

#include <cerrno>

#include "context/events.h"
#include "context/vesk_error.h"
#include "fake_cluster.h"
#include "maptable/cluster_update.h"

// A line comes at once: the clock moves a second each time it is read.
class TableEvents : public MapTable {
 protected:
  TableEvents() {
    t.req->ticks = [](vesk_request*) {
      static std::int64_t ticks;
      return ticks += 1000;
    };
    openEvents(t.req);
  }
  ~TableEvents() override {
    closeEvents(t.req);
  }
  void answer(veskProxy* proxy, std::int32_t sequence,
              const std::vector<std::string>& list) {
    cluster["a:1"].clustered = list;
    cluster["a:1"].listSequence = sequence;
    updateClusteredServers(table, t.req, proxy, sequence);
  }
};

TEST_F(TableEvents, listIsToldAsAWholeAndOnce) {
  veskProxy* a = join("a:1");
  join("b:1");
  cluster["c:1"].up = true;
  cluster["down:1"].up = false;
  answer(a, 4, {"a:1", "c:1"});
  EXPECT_EQ(t.logged("vesk cluster 0 -> 4: +a:1 +b:1 +c:1 -b:1"), 1);
  answer(a, 5, {"a:1", "c:1", "down:1"});
  answer(a, 5, {"a:1", "c:1", "down:1"});  // not applied whole, so it comes again
  EXPECT_EQ(t.logged("vesk cluster 4 -> 5: the same servers"), 1);
  answer(a, 6, {"a:1", "b:1"});
  EXPECT_EQ(t.logged("vesk cluster 5 -> 6: +b:1 -c:1"), 1);
  EXPECT_EQ(t.logged("vesk cluster"), 3);
}

TEST_F(TableEvents, failedRequestTellsItsAttempts) {
  t.req->method = "GET";
  t.req->uri = "/demo/x;id=1?pw=2";
  veskProxy* a = join("a:1");
  veskProxy* b = join("b:1");
  const std::tuple<std::deque<Reply>, std::deque<Reply>, const char*, int, int> rows[] = {
      {{{}}, {{}}, nullptr, 0, 0},
      {{{ECONNRESET}}, {}, nullptr, 1, 0},
      {{{EVESK_CLIENT_DOWN}}, {}, nullptr, 0, 0},
      {{{EVESK_BUSY}, {EVESK_BUSY}},
       {{EVESK_PROTOCOL}},
       "vesk request GET /demo/x failed: 3 attempts, a:1 busy, b:1 protocol broken, a:1 "
       "busy",
       0,
       1},
  };
  for (const auto& [first, second, line, moved, failed] : rows) {
    t.logLines.clear();
    for (veskProxy* proxy : {a, b}) proxy->history = {};
    table->mappingBalances[0]->cursor = -1;
    cluster["a:1"].replies = first;
    cluster["b:1"].replies = second;
    (void)table->handleRequestWithIndex(table, t.req, nullptr, 0);
    EXPECT_EQ(t.logged(line ? line : "vesk request"), line ? 1 : 0) << t.all();
    EXPECT_EQ(a->history.moved, moved);
    EXPECT_EQ(a->history.failed, failed);
    EXPECT_EQ(b->history.failed, failed);
  }
}
