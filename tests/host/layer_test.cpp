#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "layer/client_names.h"
#include "layer/directive.h"
#include "layer/functions.h"
#include "layer/judge.h"
#include "layer/parameters.h"
#include "layer/request_setup.h"
#include "layer/stages.h"
#include "layer/uri.h"
#include "support/fake_exchange.h"

namespace host {
namespace {

using testing::ElementsAre;

struct Running {
  FakeExchange exchange;
  HostRequest request;
  RunningRequest running{&request};
  bool open = openRequest(&request, &exchange);
};

TEST(parameters, keepOrderAndDuplicatesAndLoseTheFirstFirst) {
  Running r;
  pblock* pb = r.request.headers;
  for (auto [name, value] : {std::pair{"b", "1"}, {"a", ""}, {"b", "2"}, {"c", "\"\\"}}) {
    ASSERT_TRUE(pblock_nvinsert(name, value, pb));
  }
  ASSERT_TRUE(pblock_nninsert("n", INT32_MIN, pb));
  EXPECT_STREQ(pblock_findval("a", pb), "");
  EXPECT_EQ(pblock_findval("B", pb), nullptr);
  EXPECT_EQ(param_free(pblock_remove("b", pb)), 1);
  EXPECT_EQ(param_free(pblock_remove("x", pb)), 0);
  char before[] = "before";
  EXPECT_STREQ(pblock_pblock2str(pb, before),
               R"(before a="" b="2" c="\"\\" n="-2147483648")");
}

TEST(parameters, aFullBlockTakesNoMore) {
  Running r;
  for (int i = 0; i < kMaxParameters; ++i) {
    ASSERT_TRUE(pblock_nninsert("n", i, r.request.srvhdrs));
  }
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(pblock_nvinsert("one", "more", r.request.srvhdrs), nullptr);
  EXPECT_THAT(r.exchange.lines, ElementsAre(testing::EndsWith("from \"one\" on")));
}

// Leaks and wrong frees show under the address sanitizer.
TEST(memory, isOfTheRequestAndMayBeGivenBackInAnyOrder) {
  void* outside = system_malloc(10);
  {
    Running r;
    void* blocks[] = {system_malloc(1), system_malloc(2), system_malloc(3), nullptr};
    ASSERT_TRUE(system_malloc(4));
    for (int i : {1, 0, 2, 3}) system_free(blocks[i]);
    for (int size : {0, -5}) EXPECT_EQ(system_malloc(size), nullptr);
    EXPECT_STREQ(system_strdup("text"), "text");
    EXPECT_EQ(system_strdup(nullptr), nullptr);
    EXPECT_EQ(conf_getglobals()->Vport, 8080);
  }
  system_free(outside);
  EXPECT_EQ(system_malloc_perm(0), nullptr);
}

using Pair = std::pair<std::string, std::string>;

// The two sides of a row, which a blank parts.
Pair sides(const std::string& row) {
  return {row.substr(0, row.find(' ')), row.substr(row.find(' ') + 1)};
}

// A "!" marks what is judged evil; a plus and a path parameter stay, and nothing
// is decoded twice.
TEST(uri, decodingAndJudging) {
  std::string decoded;
  for (const char* row :
       {"/a%20b+c /a b+c", "/%2e%2E/x !/../x", "/%09%19%aF%Fa /\t\x19\xaf\xfa",
        "/a%252e /a%2e", "/a;p=%3b /a;p=;", "/a//b !/a//b", "/a/./b !/a/./b",
        "/a/.. !/a/..", "/a/. !/a/.", "/..;x/a !/..;x/a",
        "/a../..b/.c/d... /a../..b/.c/d...", "/ /", " "}) {
    auto [raw, wanted] = sides(row);
    ASSERT_TRUE(decodeUri(raw, &decoded)) << raw;
    EXPECT_EQ((util_uri_is_evil(decoded.c_str()) ? "!" : "") + decoded, wanted);
  }
  for (const char* raw : {"/a%00b", "/a%", "/a%1", "/a%g0", "/a%0g"}) {
    EXPECT_FALSE(decodeUri(raw, &decoded)) << raw;
  }
}

TEST(clientNames, thatMeanTheHostsWordsAreKnownInEverySpelling) {
  for (const char* name : {"auth-user", "Auth-User", "AUTH_USER", "REMOTE_USER", "ip",
                           "Server_Port-Secure", "query", "uri"}) {
    EXPECT_TRUE(isHostsWord(name)) << name;
  }
  for (const char* name : {"", "auth", "authuser", "x-auth-user", "authorization", "host",
                           "auth-user ", "content-type", "Auth\xdfUser"}) {
    EXPECT_FALSE(isHostsWord(name)) << name;
  }
}

TEST(pattern, wordsStarsAndLists) {
  for (const char* row : {"a/b a/b", "a/* a/", "* ", "(GET|HEAD) HEAD", "(GET) GET",
                          "(x|a/*) a/q", " ", "( (", "() "}) {
    EXPECT_TRUE(patternMatches(sides(row).first, sides(row).second)) << row;
  }
  for (const char* row :
       {"a/b a/bc", "a/* a", "(GET|HEAD) POST", "(GET|HEAD) GET|HEAD", "GET get"}) {
    EXPECT_FALSE(patternMatches(sides(row).first, sides(row).second)) << row;
  }
}

TEST(directive, badParametersAreRefusedWithTheReason) {
  const std::pair<const char*, const char*> rows[] = {
      {R"(fn="a)", "the value of \"fn\" has no closing quote"},
      {R"(fn="a\")", "the value of \"fn\" has no closing quote"},
      {"fn=", "\"fn\" has no value"},
      {"fn", "expected name=\"value\" at \"fn\""},
      {"=x", "expected name=\"value\" at \"=x\""},
      {"a = b", "expected name=\"value\" at \"a = b\""},
      {R"(fn="a"b="c")", "expected a blank behind the value of \"fn\""},
      {R"(fn=a"b)", "the value of \"fn\" has a quote in the middle"},
      {"fn=a fn=b", "\"fn\" is given twice"}};
  for (const auto& [text, reason] : rows) {
    Directive directive;
    EXPECT_EQ(parseParameters(text, &directive), reason) << text;
  }
}

TEST(directive, quotesEscapesAndComments) {
  Directive directive;
  ASSERT_EQ(
      parseParameters(R"( fn=a  b="x y=\"z\"\\ \n #" c="" d=e=f#g # h="i")", &directive),
      "");
  EXPECT_THAT(directive.parameters,
              ElementsAre(std::pair{"fn", "a"}, std::pair{"b", "x y=\"z\"\\ \\n #"},
                          std::pair{"c", ""}, std::pair{"d", "e=f#g"}));
}

// What the function of the stage runner wrote down.
std::string ran;

int note(pblock* pb, Session*, Request*) {
  ran += pblock_findval("note", pb);
  const char* result = pblock_findval("result", pb);
  return result ? std::atoi(result) : REQ_NOACTION;
}

Directive line(const std::string& where, const std::string& text) {
  Directive directive{where, {}};
  EXPECT_EQ(parseParameters(text, &directive), "");
  return directive;
}

TEST(stages, runUntilOneDecidesAndObeyTypeAndMethod) {
  registerFunction("note-it", note);
  Stages stages;
  for (const char* text : {"note=a type=x/*", "note=b method=(PUT|POST)",
                           "note=c type=y/* method=GET", "note=d result=0", "note=e"}) {
    stages.add(Stage::service, line("c:1", std::string("fn=note_it ") + text));
  }
  stages.add(Stage::objectType, line("c:6", "fn=note-it note=f type=never"));
  ASSERT_EQ(stages.prepare(), "");
  Running r;
  pblock_nvinsert("method", "GET", r.request.reqpb);
  auto run = [&](Stage stage) {
    return stages.runStage(stage, &r.request.session, &r.request);
  };
  ran.clear();
  EXPECT_EQ(run(Stage::service), REQ_PROCEED);
  EXPECT_EQ(ran, "d") << "without a content type, no line with a type runs";
  pblock_nvinsert("content-type", "y/z", r.request.srvhdrs);
  EXPECT_EQ(run(Stage::service), REQ_PROCEED);
  EXPECT_EQ(ran, "dcd");
  EXPECT_EQ(run(Stage::objectType), REQ_NOACTION);
  EXPECT_EQ(ran, "dcdf") << "type matters to Service alone";
}

// No stage: a line of Init.
TEST(stages, functionsThatNobodyCanRunThereAreRefused) {
  const std::tuple<std::optional<Stage>, const char*, const char*> rows[] = {
      {{}, "fn=load-modules shlib=/no/such.so funcs=a", "can't load module: "},
      {{}, "fn=load-modules shlib=x.so", "load-modules needs shlib and funcs"},
      {{}, "fn=document-root root=/", "\"document-root\" has no place in Init"},
      {{}, "fn=force_type type=a/b", "\"force_type\" has no place in Init"},
      {Stage::objectType, "fn=load-modules shlib=x.so funcs=a",
       "\"load-modules\" belongs into Init"},
      {Stage::objectType, "fn=force-type", "force-type needs type"},
      {Stage::nameTrans, "fn=nobody", "unknown function \"nobody\""}};
  for (const auto& [stage, text, reason] : rows) {
    Stages stages;
    if (stage) {
      stages.add(*stage, line("c:7", text));
    } else {
      stages.addInit(line("c:7", text));
    }
    EXPECT_THAT(stages.prepare(), testing::StartsWith(std::string("c:7: ") + reason));
  }
}

struct AnswerRow {
  Answer answer;
  ServiceEnd end;
};

TEST(judge, bytesTellMoreThanWordsAndWordsMoreThanResults) {
  using enum Answer;
  const AnswerRow rows[] = {{none, {.result = REQ_NOACTION}},
                            {bare, {.result = REQ_PROCEED}},
                            {failure, {.result = REQ_ABORTED}},
                            {failure, {.result = REQ_EXIT}},
                            {failure, {.result = 7}},
                            {whole, {REQ_ABORTED, true, false, 9, "broken"}},
                            {whole, {REQ_ABORTED, true, true, 0, "broken"}},
                            {broken, {REQ_PROCEED, true, true, 9, "served"}},
                            {broken, {REQ_PROCEED, true, true, -1, "broken"}},
                            {whole, {REQ_ABORTED, true, true, -1, "served"}},
                            {unknown, {REQ_ABORTED, true, true, -1, "failed"}},
                            {unknown, {REQ_EXIT, true, true, -1, nullptr}},
                            {unknown, {7, true, true, -1, nullptr}},
                            {whole, {REQ_PROCEED, true, true, -1, "failed"}},
                            {whole, {REQ_NOACTION, true, true, -1, nullptr}}};
  for (const AnswerRow& row : rows) {
    EXPECT_EQ(judgeService(row.end), row.answer) << &row - rows;
  }
  for (int status : {0, 200, 299}) EXPECT_FALSE(failureHead(status, "OK").recorded);
  EXPECT_STREQ(failureHead(302, "There").reason, "There");
}

struct StatusRow {
  int given;
  const char* reason;
  const char* kept;
};

// What can't stand in a head becomes 500, and is told.
TEST(response, statusAndReasonAreMadeFitAndStartedOnce) {
  const StatusRow rows[] = {{404, "Not here", "Not here"}, {503, nullptr, nullptr},
                            {200, "a\r\nb\x7f", "a  b "},  {999, "", ""},
                            {0, "zero", nullptr},          {100, "Continue", nullptr},
                            {70000, "wraps", nullptr}};
  for (const StatusRow& row : rows) {
    Running r;
    protocol_status(&r.request.session, &r.request, row.given, row.reason);
    EXPECT_STREQ(r.request.reason, row.kept) << row.given;
    EXPECT_EQ(protocol_start_response(&r.request.session, &r.request), REQ_PROCEED);
    EXPECT_EQ(protocol_start_response(&r.request.session, &r.request), REQ_ABORTED);
    const int sent = r.exchange.lines.empty() ? row.given : 500;
    EXPECT_EQ(r.exchange.starts, std::vector<int>{sent});
  }
}

TEST(input, grabAsksForNoMoreThanTheBufferHolds) {
  Running r;
  netbuf* input = r.request.session.inbuf;
  r.exchange.unread = {"a"};
  EXPECT_EQ(netbuf_grab(input, 1 << 30), 1);
  EXPECT_EQ(r.exchange.asked, kInputBufferSize);
  r.exchange.readFailure = -1;
  EXPECT_EQ(netbuf_grab(input, 5), -1);
  EXPECT_EQ(input->pos, input->cursize);
  EXPECT_EQ(netbuf_grab(input, 0), -1);
}

TEST(log, longLinesAreWhole) {
  Running r;
  std::string text(5000, 'x');
  (void)log_error(LOG_WARN, "fn", nullptr, nullptr, "%s%%", text.c_str());
  EXPECT_THAT(r.exchange.lines, ElementsAre("0|fn|" + text + "%"));
}

}  // namespace
}  // namespace host
