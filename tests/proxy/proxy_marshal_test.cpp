#include "proxy/proxy_marshal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>

#include "proxy_fixture.h"

// A frame as text, released.
static std::string takeFrame(vesk_request* req, const char* extra = nullptr) {
  char* frame = nullptr;
  const std::int32_t length = buildRequest(req, &frame, extra);
  if (length <= 0) return {};
  std::string bytes(frame, static_cast<std::size_t>(length));
  req->free(req, frame);
  return bytes;
}

TEST(buildRequest, carriesEveryItemInOrder) {
  TestRequest t({});
  t.variables = {{"REQUEST_METHOD", "POST"}, {"QUERY_STRING", "a=1"}};
  const char* names[] = {"host", "x-empty", nullptr};
  const char* values[] = {"example", "", nullptr};
  t.req->headerNames = names;
  t.req->headerValues = values;
  t.req->setAttribute(t.req, "older", "ab", 2);
  t.req->setAttribute(t.req, "newer", "\0c", 2);
  char session[] = "0001abcd";
  t.req->sessionId = session;
  std::string items = word(18) + text("newer") + text({"\0c", 2}) + word(18) +
                      text("older") + text("ab") + word(19) + text("a=1") + word(22) +
                      text("POST");
  for (const int id : {29, 28, 20, 21, 24, 25, 26, 27, 33, 34, 35})
    items += word(id) + text("");
  items += word(23) + text("/demo/index.jsp") + word(30) + text("more") + word(32) +
           text("host") + text("example") + word(32) + text("x-empty") + text("") +
           word(42) + text("0001abcd") + word(31);
  EXPECT_EQ(takeFrame(t.req, "more"), word(39) + text(items));
  EXPECT_EQ(t.traced("PROXY_SET_ATTRIBUTE ->"), 1);
  EXPECT_EQ(t.logged(""), 0);
}

TEST(buildRequest, costsOneAllocationAndGivesEveryVariableBack) {
  TestRequest t({});
  static int taken, given;
  taken = given = 0;
  t.req->getHeader = [](vesk_request*, const char*) { return ++taken, "v"; };
  t.req->freeHeader = [](vesk_request*, const char*) { ++given; };
  const std::int64_t before = t.allocations;
  EXPECT_NE(takeFrame(t.req), "");
  EXPECT_EQ(t.allocations - before, 1);
  t.failAllocation = t.allocations + 1;
  EXPECT_EQ(takeFrame(t.req), "");
  EXPECT_EQ(t.req->lastError, ENOBUFS);
  EXPECT_EQ(t.logged("failed in sendAllHeaders"), 1);
  // Sizes that wrap to something small in 32 bits.
  t.req->setAttribute(t.req, "a", "", 0);
  t.req->setAttribute(t.req, "b", "", 0);
  t.req->getAttributeSize = [](vesk_request*, const char*) { return INT_MAX; };
  EXPECT_EQ(takeFrame(t.req), "");
  EXPECT_EQ(t.logged("malloc(2147483647) failed in sendAllHeaders"), 1);
  EXPECT_EQ(numbers({taken, given}), "39 39 ");
}

TEST(sendPostData, answersEachWishWithOneFrame) {
  // The bytes wanted, those there are, whether the browser breaks off behind them,
  // and the count that goes out.
  constexpr std::tuple<const char*, int, std::size_t, bool, int> kRows[] = {
      {"all that was wanted", 5, 9, false, 5},
      {"less than was wanted", 9, 5, false, 5},
      {"the smallest number wants nothing", INT_MIN, 5, false, 0},
      {"the end of the body", 5, 0, false, 0},
      {"a browser that broke off", 5, 0, true, -1},
      {"no more than one frame holds", 40961, 50000, false, 40960},
      {"nor of the largest wish", INT_MAX, 50000, false, 40960}};
  for (const auto& [why, wanted, available, breaks, count] : kRows) {
    SCOPED_TRACE(why);
    const std::string sent(static_cast<std::size_t>(std::max(count, 0)), 'x');
    TestRequest t({expectBytes(word(16) + word(count) + sent)}, 1);
    t.req->hasPostData = 1;
    t.postData.assign(available, 'x');
    t.postBreaks = breaks;
    t.backend.sends = 0;
    EXPECT_EQ(sendPostData(t.req, wanted, t.proxy->pool->freeConnections), 1);
    EXPECT_EQ(t.backend.sends, 1);
    EXPECT_EQ(t.logged("error reading from client"), count < 0 ? 1 : 0);
  }
}

TEST(nextHeader, cutsAHeaderText) {
  // Why, the text, "name|value;" for each header found.
  constexpr const char* kRows[][3] = {
      {"a tab continues a value", "A: 1\r\n\tmore\r\nB: 2\r\n", "A|1\r\n\tmore;B|2;"},
      {"a blank continues a value, twice", "A: 1\r\n b\r\n c\r\n", "A|1\r\n b\r\n c;"},
      {"a continuation without its end", "A: 1\r\n\tmore", ""},
      {"an empty value", "A: \r\n", "A|;"},
      {"what follows the last header is dropped", "A: 1\r\nB: 2", "A|1;"},
      {"a line without a colon joins the next name", "x\r\nA: 1\r\n", "x\r\nA|1;"},
      {"nothing is trimmed", " A :  1 \r\n", " A | 1 ;"},
      {"a colon alone separates nothing", "A:1\r\n", ""}};
  for (const auto& [why, sent, expected] : kRows) {
    std::string input = sent;
    std::string found;
    char *name = nullptr, *value = nullptr, *rest = input.data();
    while ((rest = nextHeader(rest, &name, &value)))
      found += std::string(name) + "|" + value + ";";
    EXPECT_EQ(found, expected) << why;
  }
}
