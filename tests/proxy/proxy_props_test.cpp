#include "proxy/proxy_props.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "context/vesk_error.h"
#include "properties/vesk_property.h"
#include "proxy/wire.h"
#include "proxy_fixture.h"

// One fetch: the table, the number, the error, what is in the pool, how many lines the
// log got and how many of them are `line`.
static std::string fetch(TestRequest& t, const char* line) {
  std::int32_t sequence = 0;
  propertyTable* table =
      t.proxy->fetchProps(t.req, t.proxy, "clustered-servers", &sequence);
  std::string told = table ? "" : "null ";
  for (std::int32_t i = 0; table && i < table->count; ++i)
    told += std::string(table->entries[i].key) + "=" + table->entries[i].value + " ";
  told += numbers({sequence, t.req->lastError}) +
          (t.proxy->pool->freeConnections ? "pooled " : "dropped ") +
          numbers({t.logged(""), t.logged(line)});
  freeProperties(t.req, table);
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
  for (const std::int32_t piece : kPieces)
    for (const auto& [why, answer, line, told] : rows) {
      TestRequest t(asked + answer);
      t.backend.piece = piece;
      EXPECT_EQ(fetch(t, line), told) << why;
    }
}

TEST(fetchProps, withoutMemoryForTheFrameNothingIsSent) {
  TestRequest t({});
  t.failAllocation = t.allocations + 1;
  EXPECT_EQ(t.proxy->fetchProps(t.req, t.proxy, "x", nullptr), nullptr);
  EXPECT_EQ(t.req->lastError, ENOBUFS);
  EXPECT_EQ(t.traced("127.0.0.1:7001 could not fetch x"), 1);
}
