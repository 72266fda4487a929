// Whole conversations over a socket.

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include "backend/wire.h"
#include "peer.h"

namespace backend_test {

using Json = nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

static const std::string kPing = word(12);

// The frame of a request for a page, which a query may follow.
static std::string ask(const std::string& target, const Texts& headers = {},
                       const std::string& method = "GET") {
  const std::size_t end = std::min(target.find('?'), target.size());
  const std::string query = target.substr(std::min(end + 1, target.size()));
  return frameOf({"/demo/" + target.substr(0, end), query, headers, method});
}

// What a server of its own answers to one request.
static Reply replyTo(const std::string& frame, const Source& source = {}) {
  const Peer peer;
  peer.send(kPing + frame);
  return peer.reply(source);
}

TEST(conversation, pingsAreTakenAnywhereBetweenAndBytesOneByOne) {
  const Peer peer;
  const std::string sent = kPing + kPing + word(13) + text("servlet-mappings") + kPing +
                           word(13) + text("unknown") + kPing + ask("sleep?ms=0");
  for (const char& byte : sent) peer.send({&byte, 1});
  const std::string wanted =
      word(14) + text("/demo/*=demo\n*.jsp=demo\n") + word(9) + word(9);
  EXPECT_EQ(peer.receive(wanted.size()), wanted);
  const Reply reply = peer.reply();
  EXPECT_EQ(reply.body, "slept 0 ms\n");
  EXPECT_TRUE(reply.finished);
  peer.end(SHUT_WR);
  EXPECT_EQ(peer.receive(), "") << "nothing stands behind the end";
}

TEST(conversation, attributeIsSetBeforeThePage) {
  const Reply reply = replyTo(frameOf(
      {"/demo/attribute", "name=n&value=v%00w", {}, "GET", {{"came", "before"}}}));
  EXPECT_THAT(reply.head, testing::StartsWith(std::string("n=v\0w\n", 6)));
  EXPECT_EQ(Json::parse(reply.body)["received"][0]["text"], "before");
}

TEST(conversation, tailStandsBeforeTheEndAndHeadHasNoBody) {
  backend::Options options = plainOptions();
  options.loadValue = 4000000000U;
  const Peer peer(options);
  peer.send(kPing + ask("status?code=204"));
  const Reply reply = peer.reply();
  EXPECT_EQ(reply.status, 204);
  EXPECT_THAT(reply.commands, ElementsAre(6, 7, 41, 9)) << "no body";
  for (const char* name : {"bytes", "snoop", "index.jsp", "nothing"}) {
    peer.send(ask(name, {}, "HEAD"));
    const Reply head = peer.reply();
    EXPECT_THAT(head.commands, ElementsAre(6, 7, 41, 9)) << name;
    EXPECT_THAT(head.head, HasSubstr("Content-Length: ")) << name;
  }
}

TEST(conversation, echoGivesBackEveryByte) {
  std::string body(300000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * i >> 7U);
  const Reply sized = replyTo(
      ask("echo", {{"content-type", "a/b"}, {"content-length", "300000"}}), {body, 7001});
  EXPECT_TRUE(sized.body == body);
  EXPECT_THAT(sized.head, HasSubstr("Content-Type: a/b\r\nContent-Length: 300000\r\n"));
  const Reply unsized = replyTo(ask("echo", {{"content-type", "a\r\nb: c"}}), {body});
  EXPECT_TRUE(unsized.body == body);
  EXPECT_THAT(unsized.head, Not(HasSubstr("Content-Length")));
  EXPECT_THAT(unsized.head, Not(HasSubstr("b: c")));
}

TEST(conversation, bodyThatBreaksOffEndsWell) {
  const std::string some = "123456789";
  const std::tuple<const char*, Source, int> rows[] = {{"echo", {"", 9, -1}, 400},
                                                       {"echo", {"", 9, 0}, 400},
                                                       {"echo", {some, 9, -1}, 200},
                                                       {"upload", {some, 9, 0}, 400},
                                                       {"upload", {some, 9, -1}, 400}};
  const Peer peer;
  peer.send(kPing);
  for (const auto& [page, source, status] : rows) {
    peer.send(ask(page, {{"content-length", "10"}}, "POST"));
    const Reply reply = peer.reply(source);
    EXPECT_EQ(reply.status, status) << page << source.end;
    EXPECT_TRUE(reply.finished) << page << source.end;
  }
}

TEST(conversation, snoopTellsAllThatArrived) {
  const Texts headers = {{"b", "1"}, {"a", ""}, {"b", "\xff"}};
  const BlockParts parts{"/demo/snoop", "header=h%201&realpath=/r&header=", headers,
                         "GET",         {{"n", std::string("\0x", 2)}},     "whatever"};
  const Json facts = Json::parse(replyTo(frameOf(parts)).body);
  EXPECT_EQ(facts["headers"], Json::parse(R"([["b","1"],["a",""],["b","\u00ff"]])"));
  EXPECT_EQ(facts["attributes"],
            Json::parse(R"([{"name":"n","size":2,"text":"\u0000x"}])"));
  EXPECT_EQ(facts["get_header"], Json::parse(R"([["h 1","<h 1>"],["","<>"]])"));
  EXPECT_EQ(facts["get_realpath"], Json::parse(R"([["/r","</r>"]])"));
  EXPECT_EQ(facts["session_id"], "whatever");
  EXPECT_EQ(facts["variables"].size(), 13U);
  EXPECT_EQ(facts["variables"]["REQUEST_METHOD"], "GET");
  EXPECT_EQ(facts["extra"], nullptr);
}

TEST(conversation, sessionOfAnotherServerIsTakenOver) {
  const Peer peer;
  peer.send(kPing + ask("session", {{"cookie", "JSESSIONID=Z999abcTRA001"}}));
  const Reply first = peer.reply();
  EXPECT_THAT(first.head, HasSubstr("Set-Cookie: JSESSIONID=A001abcTRB002****;"));
  EXPECT_EQ(Json::parse(first.body)["state"], "adopted");
  EXPECT_EQ(Json::parse(first.body)["from"], "Z999");
  peer.send(ask("session", {{"cookie", "JSESSIONID=A001abcTRB002****"}}));
  const Reply second = peer.reply();
  EXPECT_EQ(Json::parse(second.body)["count"], 2);
  EXPECT_THAT(second.head, Not(HasSubstr("Set-Cookie")));
}

TEST(conversation, hostileTextsAreEscapedInThePage) {
  const Texts headers = {{"x\"<b>", "</td><script>alert(1)</script>"}};
  const Reply reply = replyTo(ask("index.jsp?<script>", headers));
  EXPECT_EQ(reply.status, 200);
  EXPECT_THAT(reply.body, Not(HasSubstr("<script>")));
  EXPECT_THAT(reply.body, Not(HasSubstr("<b>")));
  EXPECT_THAT(reply.body, HasSubstr("&lt;/td&gt;&lt;script&gt;"));
}

TEST(conversation, badQueriesGetAPage) {
  const std::pair<std::int32_t, std::vector<const char*>> rows[] = {
      {200, {"die?at=start&only=B002", "busy?only=B002"}},
      {400,
       {"status?code=100", "status?code=302&location=%0d%0aX:1", "bytes?n=-1",
        "bytes?n=17179869185", "stream?size=1048577", "die?at=nowhere",
        "die?at=start&how=softly"}},
      {404, {"nothing"}},
      {503, {"status?code=503"}}};
  const Peer peer;
  peer.send(kPing);
  for (const auto& [status, targets] : rows) {
    for (const char* target : targets) {
      peer.send(ask(target));
      EXPECT_EQ(peer.reply().status, status) << target;
    }
  }
}

// Each must end this connection at once, with no more than the answer.
TEST(conversation, whatBreaksTheProtocolEndsTheConnection) {
  const std::string frame = word(39);
  const std::string set = word(13);
  const std::string echo = ask("echo", {{"content-length", "10"}});
  const std::string asked = word(15) + word(10);
  Texts rows = {{echo + word(12) + word(0), asked},
                {echo + word(16) + word(11), asked},
                {echo + word(16) + word(-2), asked},
                {ask("snoop?header=a") + word(-1), word(3) + text("a")},
                {ask("snoop?realpath=a") + word(0x7fffffff), word(4) + text("a")},
                {ask("busy"), word(38)},
                {ask("die?at=word"), std::string(2, '\0')}};
  for (const std::string& sent :
       {word(14), word(0), word(-1), frame + word(-1), frame + word(0x7fffffff),
        frame + word(backend::kMaxRequestBlock + 1), frame + word(0), set + word(1 << 30),
        set + word(-5), ask("die?at=start")}) {
    rows.emplace_back(sent, "");
  }
  for (const auto& [sent, answer] : rows) {
    const Peer peer;
    peer.send(kPing + sent);
    EXPECT_EQ(peer.receive(), answer) << testing::PrintToString(sent);
  }
}

TEST(conversation, frameCutAnywhereEndsWithoutAnAnswer) {
  const std::string frame = kPing + ask("sleep?ms=0", {{"h", "v"}});
  for (std::size_t size = 0; size < frame.size(); ++size) {
    const Peer peer;
    peer.send(std::string_view(frame).substr(0, size));
    peer.end(SHUT_WR);
    EXPECT_EQ(peer.receive(), "") << "cut at " << size;
  }
}

}  // namespace backend_test
