#include "maptable/request_filter.h"

#include <gmock/gmock.h>

#include "fake_cluster.h"

using ::testing::ElementsAre;

using RequestFilter = MapTable;

struct MatchRow {
  const char *why, *pattern, *uri;
  bool matches;
  const char *host = nullptr, *path = nullptr;
};

constexpr MatchRow kMatchRows[] = {
    {"exact", "/foo", "/foo", true},
    {"exact takes what lies below", "/foo", "/foo/bar", true},
    {"'&' is a boundary", "/foo", "/foo&x", true},
    {"'#' is a boundary", "/foo*", "/foo#x", true},
    {"a longer word isn't below", "/foo*", "/foobar", false},
    {"'?' is no boundary", "/foo*", "/foo?x", false},
    {"all", "*", "/", true},
    {"an empty URI has no boundary", "*", "", true},
    {"suffix", "*.jsp", "/a/b.jsp", true},
    {"suffix without a '/'", "*.jsp", "b.jsp", false},
    {"shorter than the suffix", "*.jsp", "/", false},
    {"prefix and suffix", "/foo*.jsp", "/foo/a.jsp", true},
    {"the byte behind the prefix is '.'", "/foo*.jsp", "/foo.jsp", false},
    {"contains", "/foo*bar*", "/foo/xbary", true},
    {"contains doesn't test the prefix", "/foo*bar*", "/oth/bar", true},
    {"contains tests the boundary", "/foo*bar*", "/other/bar", false},
    {"contains looks behind the prefix", "/foo*bar*", "/bar/foo", false},
    {"offset behind the end", "/foo/and/more*bar*", "/bar", false},
    {"found in the path", "/foo*bar*", "/fox", true, nullptr, "/srv/foo/bar"},
    {"nothing found behind a long prefix", "/foo/bar/baz*b*", "/b", false, nullptr, "/b"},
    {"two stars and nothing between", "/foo**", "/foo/x", true},
    {"later stars are plain characters", "/a*b*c*", "/a/bxc/", false},
    {"host", "//host1/foo*", "/foo/a", true, "HOST1"},
    {"the port counts", "//host1/foo*", "/foo/a", false, "host1:81"},
    {"no host header", "//host1/foo*", "/foo/a", false},
    {"host without a path", "//host1", "/any", true, "host1"},
    {"a star in the host is a plain character", "//host1*", "/a", false, "host12"},
    {"contains doesn't test the host", "//h/foo*bar*", "/foo/bar", true, "other"},
    {"empty host part, empty header", "///foo", "/foo", true, ""},
    {"the stripped path ends in the suffix", "*.jsp", "/a.jsp;x=1", true},
    {"the suffix only in the parameters", "*.jsp", "/a;x=.jsp", false},
    {"the suffix in front of them too", "*.jsp", "/a.jsp;x=.jsp", true},
    {"only the last parameters are looked at", "*.jsp", "/a;x=.jsp;y=.jsp", true},
    {"parameters behind a boundary", "/a*", "/a/;x=1", true},
    {"the ';' is only in the path", "*.jsp", "/a.jsp", true, nullptr, "/srv/a.jsp;x=1"},
    {"the ';' isn't in the path", "*.jsp", "/a;x=.jsp", true, nullptr, "/srv/a"},
    {"the path ends in the suffix", "*.jsp", "/a", true, nullptr, "/srv/a.jsp"},
};

TEST_F(RequestFilter, testsAPatternByItsParts) {
  veskProxy* proxy = join("a:1", "/never=x");
  for (const MatchRow& row : kMatchRows) {
    SCOPED_TRACE(std::string(row.why) + ": " + row.pattern + " " + row.uri);
    table->patterns[0] = splitPattern(row.pattern);
    t.req->uri = row.uri;
    t.req->path = row.path;
    t.variables.clear();
    if (row.host) t.variables["HOST"] = row.host;
    EXPECT_EQ(table->filterRequest(table, t.req, 1), row.matches ? 0 : -1);
  }
  EXPECT_TRUE(isProxyActive(proxy));
}

TEST_F(RequestFilter, takesTheFirstThatFitsAndSaysWhatItPassedOver) {
  join("a:1", "*.jsp=0\n/a*.jsp=1\n/a*=2\n*=3");
  EXPECT_EQ(table->ignoreSuffixMap(table, t.req, 1), 0U);
  EXPECT_EQ(table->ignoreSuffixMap(table, t.req, 1), 1U);
  t.req->uri = "/a/;x=.jsp";
  t.variables["HOST"] = "h";
  t.traceLines.clear();
  EXPECT_EQ(table->filterRequest(table, t.req, 1), 2);
  EXPECT_THAT(
      t.traceLines,
      ElementsAre("filtering /a/;x=.jsp (/a/) HOST=h", "filtering ignored suffix: *.jsp",
                  "filterRequest: ignoring extension match after \";\"",
                  "filterRequest:   matched /a*"));
}

TEST_F(RequestFilter, allocatesOnlyForPathParametersAndLivesWithoutAUri) {
  join("a:1", "/foo*bar*=0\n*=1");
  t.req->uri = "/x";
  const std::int64_t before = t.allocations;
  EXPECT_EQ(table->filterRequest(table, t.req, 1), 1);
  EXPECT_EQ(t.allocations, before);
  t.req->uri = "/x/;y";
  t.failAllocation = before + 1;  // without its copy the path counts as it is
  EXPECT_EQ(table->filterRequest(table, t.req, 1), 1);
  EXPECT_EQ(t.allocations, before + 1);
  t.req->uri = nullptr;
  EXPECT_EQ(table->filterRequest(table, t.req, 1), -1);
  EXPECT_EQ(t.traced("filterRequest:   no match"), 1);
  EXPECT_EQ(table->tableUse, kTableServing);
  EXPECT_EQ(cluster["a:1"].refreshes, 3);
}

TEST_F(RequestFilter, givesEveryServerItsChance) {
  veskProxy* up = join("up:1", "/u*=u");
  remove(join("gone:1", "/g*=g"));
  veskProxy* back = join("back:1", "/b*=b");
  remove(back);
  veskProxy* lost = join("lost:1", "/l*=l");
  cluster["gone:1"].up = false;
  cluster["back:1"].refreshed = 0;  // refreshed in the pass that revives it
  cluster["back:1"].mappings = "/new*=n";
  cluster["lost:1"].refreshed = -1;
  setProxyActive(lost, false);
  cluster["up:1"].refreshed = -1;  // a lost race isn't a lost server
  t.req->uri = "/new";

  EXPECT_EQ(table->filterRequest(table, t.req, 1), 4);

  EXPECT_EQ(names(table->masterList), " up:1 [gone:1] back:1 [lost:1]");
  EXPECT_THAT(mappings(),
              ElementsAre("/u*=u up:1", "/g*=g [gone:1] none", "/b*=b [back:1] none",
                          "/l*=l [lost:1] none", "/new*=n back:1"));
  EXPECT_EQ(cluster["gone:1"].refreshes, 0);
  EXPECT_EQ(cluster["up:1"].pings, 0);
  EXPECT_TRUE(isProxyActive(up) && isProxyActive(back));
}
