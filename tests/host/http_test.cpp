#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

#include "host_process.h"

namespace host {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kConfig[] = R"(Listen 127.0.0.1:0
ServerName tester
DocumentRoot htdocs
DirectoryIndex index.html index.jsp
Threads 8
ErrorLog error.log            # absent: standard error
Init fn=load-modules shlib="@PLUGIN@"
  funcs="test-init,test_type,test_service"
Init fn=test-init name=plug-in
<Object name="default">
NameTrans fn="document-root" root="htdocs"
ObjectType fn=test-type
Service type="vesk-internal/*" fn="test_service"
</Object>
)";

// One host for all tests that leave it as it was.
class http : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    process = new HostProcess(kConfig);
    port = process->port();
  }
  // Under a sanitizer, the exit status tells of leaks and races.
  static void TearDownTestSuite() {
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0) << process->errors();
    delete process;
  }
  // The whole response to a request after which the connection closes. A line
  // with method and path is a whole request.
  static std::string ask(std::string bytes) {
    if (bytes.find("\r\n") == std::string::npos) bytes += " HTTP/1.1\r\n\r\n";
    Client client(port);
    client.send(bytes);
    client.endSending();
    return client.readToEnd();
  }
  static HostProcess* process;
  static int port;
};
HostProcess* http::process = nullptr;
int http::port = 0;

// A header that another one hides in would stand behind these.
constexpr char kCookies[] = "\r\nset-cookie: a=1\r\nset-cookie: b=2\r\n\r\n";

struct Row {
  const char* request;
  const char* status;
  const char* end;  // of the response
};

const Row kRows[] = {
    {"GET /", "200 OK", "\r\n\r\nfront"},
    {"GET /a%20b.css?q", "200 OK", "\r\n\r\nstyle"},
    {"HEAD /", "200 OK", "content-length: 5\r\n\r\n"},
    {"GET /sub/ HTTP/1.0\r\n\r\n", "200 OK", "\r\n\r\ninner"},
    {"GET /t/half", "200 OK", "\r\n\r\n4\r\nhalf\r\n0\r\n\r\n"},
    {"GET /t/status?404%20x", "404 20x", "4\r\nbody\r\n0\r\n\r\n"},
    {"GET /t/status?200 HTTP/1.0\r\n\r\n", "200 OK", "close\r\n\r\nbody"},
    {"GET /t/status?204", "204 No Content", kCookies},
    {"GET /t/status?304", "304 Not Modified", kCookies},
    {"HEAD /t/status?200", "200 OK", kCookies},
    {"GET /t/start", "200 OK", "chunked\r\n\r\n0\r\n\r\n"},
    {"GET /t/length?4", "200 OK", "\r\n\r\n0123"},
    {"GET /t/length?20", "200 OK", "\r\n\r\n0123456789"}};

struct PageRow {
  const char* status;
  std::vector<const char*> requests;
};

// What is answered by a page of the host's.
const PageRow kPages[] = {
    {"301 Moved Permanently", {"GET /sub?x"}},
    {"400 Bad Request",
     {"GET /a%00b", "GET /a%zz", "GET / HTTP/1.1\r\nA: b\r\n c\r\nD: e\r\n\r\n",
      "GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nx",
      "GET / HTTP/1.1\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n",
      "GET / HTTP/1.1\r\nContent-Length: +1\r\n\r\nx"}},
    {"404 Not Found",
     {"GET /bare/", "GET /none", "GET /../secret", "GET /%2e%2e/secret", "GET /t/none"}},
    {"405 Method Not Allowed", {"POST /"}},
    {"410 Gone <fishing>", {"GET /t/abort?410"}},
    {"417 Expectation Failed", {"GET / HTTP/1.1\r\nExpect: wonders\r\n\r\n"}},
    {"500 Internal Server Error", {"GET /t/abort", "GET /t/abort?200"}}};

void expectAnswer(const std::string& response, const Row& row) {
  EXPECT_THAT(response, StartsWith(std::string("HTTP/1.1 ") + row.status + "\r\n"))
      << row.request;
  EXPECT_THAT(response, EndsWith(row.end)) << row.request;
  EXPECT_THAT(response, Not(HasSubstr("secret"))) << row.request;
  EXPECT_THAT(response, Not(HasSubstr("vesk-internal"))) << row.request;
}

TEST_F(http, answers) {
  for (const Row& row : kRows) expectAnswer(ask(row.request), row);
  for (const PageRow& row : kPages) {
    for (const char* request : row.requests) {
      expectAnswer(ask(request), {request, row.status, "</html>\n"});
    }
  }
}

TEST_F(http, thePlugInSeesTheRequestAsItCame) {
  std::string text =
      ask("PUT /t/%74ell?a=%20&b HTTP/1.0\r\nHost: h\r\nX-B:  two\tparts \r\nX-Empty:\r\n"
          "x-b: again\r\nContent-Length: 0\r\n\r\n");
  EXPECT_THAT(
      text, HasSubstr("\r\n\r\nclf-request=PUT /t/%74ell?a=%20&b HTTP/1.0\nmethod=PUT\n"
                      "protocol=HTTP/1.0\nuri=/t/tell\nquery=a=%20&b\n[headers]\nhost=h\n"
                      "x-b=two parts\nx-empty=\nx-b=again\ncontent-length=0\n[vars]\n"));
  EXPECT_THAT(text, HasSubstr("htdocs/t/tell\nntrans-base="));
  EXPECT_THAT(text, HasSubstr("[client]\nip=127.0.0.1\n[server]\nname=tester\npeer=0\n"));
  EXPECT_THAT(text, EndsWith("htdocs/other/\n"));
}

// CivetWeb alone would take the rest for the version, and send it back as such.
TEST_F(http, blankInTheUriIsRefusedWithoutAnEcho) {
  EXPECT_THAT(ask("GET /a b HTTP/1.1\r\nX: y z\r\n\r\n"), StartsWith("HTTP/1.0 400 "));
  EXPECT_THAT(ask("GET /t/start HTTP/1.1\r\nX: y z\r\n\r\n"),
              StartsWith("HTTP/1.1 200 "));
}

TEST_F(http, noHeaderIsDroppedSilently) {
  std::string request = "GET /t/start HTTP/1.1\r\n";
  for (int i = 0; i < 64; ++i) request += "H" + std::to_string(i) + ": x\r\n";
  EXPECT_THAT(ask(request + "\r\n"), StartsWith("HTTP/1.1 200 "));
  EXPECT_THAT(ask(request + "H64: x\r\n\r\n"), StartsWith("HTTP/1.1 431 "));
}

const std::string kPost = "POST /t/echo HTTP/1.1\r\n";
const std::string kChunked = "Transfer-Encoding: chunked\r\n\r\n";

// Bodies of every framing, whatever follows them on the connection.
TEST_F(http, aBodyIsReadToItsEndAndNoFurther) {
  for (const std::string& body :
       {std::string("Content-Length: 5\r\n\r\nabcde"),
        kChunked + "2\r\nab\r\n3\r\ncde\r\n0\r\n\r\n",
        kChunked + "5;x=\"y\"\r\nabcde\r\n0;z\r\nT: u\r\n\r\n"}) {
    std::string rest = body + "GET /t/length?10 HTTP/1.1\r\n\r\n";
    std::string response = ask(kPost + rest);
    EXPECT_THAT(response, EndsWith("\r\n\r\n0123456789")) << body;
    EXPECT_THAT(response, HasSubstr("cde\r\n")) << body;
    response = ask("POST /t/start HTTP/1.1\r\n" + rest);
    EXPECT_THAT(response, EndsWith("\r\n\r\n0123456789")) << body;
    EXPECT_THAT(response, Not(HasSubstr("cde"))) << body;
  }
}

// The same, with every byte in a packet of its own.
TEST_F(http, aBodyMayComeInAnyPieces) {
  Client client(port);
  std::string sent =
      kPost + kChunked + "3;e\r\nxyz\r\n0\r\nT: u\r\n\r\nGET / HTTP/1.0\r\n\r\n";
  for (char byte : sent) client.send(std::string(1, byte));
  std::string responses = client.readToEnd();
  EXPECT_THAT(responses, EndsWith("\r\n\r\nfront"));
  std::erase_if(responses, [](char c) { return c <= '9'; });
  EXPECT_THAT(responses, HasSubstr("xyzHTTP")) << "between the ends of chunks";
}

TEST_F(http, thePlugInGetsTheFirstHalfBeforeTheSecondIsSent) {
  for (bool chunked : {false, true}) {
    Client client(port);
    client.send(kPost);
    client.send(chunked ? kChunked + "6\r\nabc" : "Content-Length: 6\r\n\r\nabc");
    EXPECT_THAT(client.readTo("abc\r\n"), EndsWith("3\r\nabc\r\n"));
    client.send(chunked ? "def\r\n0\r\n\r\n" : "def");
    EXPECT_EQ(client.readTo("\r\n0\r\n\r\n"), "3\r\ndef\r\n0\r\n\r\n");
  }
}

TEST_F(http, continueIsSentWhenTheBodyIsAskedFor) {
  const std::string head =
      " HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n";
  Client client(port);
  client.send("POST /t/echo" + head);
  EXPECT_THAT(client.readTo("Continue\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  client.send("abc");
  EXPECT_THAT(client.readTo("abc\r\n"), EndsWith("3\r\nabc\r\n"));
  Client other(port);
  other.send("POST /t/start" + head);
  EXPECT_THAT(other.readToEnd(), Not(HasSubstr("100 Continue")))
      << "and the connection closes, since nobody knows whether the body comes";
}

TEST_F(http, aBrokenBodyIsToldAndEndsTheConnection) {
  std::vector<std::string> bodies = {"Content-Length: 5\r\n\r\nabc",
                                     kChunked + "5\r\nabc"};
  for (const char* rest : {"", "\r\n", "XX0\r\n\r\n", "\r\nx\r\n\r\n", "\r\n-1\r\n\r\n",
                           "\r\n0\r\nT: u", "\r\nffffffffffffffffff\r\n\r\n"}) {
    bodies.push_back(kChunked + "3\r\nabc" + rest);
  }
  for (const std::string& body : bodies) {
    std::size_t before = process->errors().size();
    (void)ask(kPost + body);
    EXPECT_THAT(process->errors().substr(before), HasSubstr("echo body broke off\n"))
        << body;
  }
}

TEST_F(http, afterAnAbortTheConnectionCloses) {
  for (const char* path : {"/t/half", "/t/status?404", "/t/length?20"}) {
    Client client(port);
    client.send(std::string("GET ") + path + " HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
    EXPECT_THAT(client.readToEnd(), Not(HasSubstr("front"))) << path;
  }
}

TEST_F(http, aFileThatTheClientHasIsNotSentAgain) {
  std::string response = ask("GET /");
  std::string tag = response.substr(response.find("etag: ") + 6);
  std::string request = "GET / HTTP/1.1\r\nIf-None-Match: ";
  EXPECT_THAT(ask(request + tag.substr(0, tag.find("\r\n")) + "\r\n\r\n"),
              StartsWith("HTTP/1.1 304 Not Modified\r\n"));
  EXPECT_THAT(ask(request + "\"other\"\r\n\r\n"), EndsWith("front"));
}

TEST(program, stopsCleanlyAfterTheRequestInProgress) {
  for (int number : {SIGTERM, SIGINT}) {
    HostProcess process(kConfig);
    int at = process.port();
    Client idle(at);
    Client busy(at);
    busy.send("POST /t/echo HTTP/1.1\r\nContent-Length: 6\r\n\r\nabc");
    EXPECT_THAT(busy.readTo("abc\r\n"), EndsWith("abc\r\n"));
    process.signal(number);
    EXPECT_EQ(idle.readToEnd(), "") << "nobody waits for a client without a request";
    busy.send("def");
    EXPECT_THAT(busy.readToEnd(), EndsWith("def\r\n0\r\n\r\n"));
    EXPECT_EQ(process.wait(), 0);
    EXPECT_THAT(process.errors(), EndsWith(" info test_init ended plug-in 100%\n"));
  }
}

struct RefusedRow {
  const char* argument;
  std::string config;  // behind the first Listen
  const char* error;
};

const std::string kLoad = "Init fn=load-modules shlib=@PLUGIN@ funcs=test-init";

const RefusedRow kRefused[] = {
    {"", "Threads x\n", "host.conf:2: Threads needs a number"},
    {"--check", "Init fn=nobody\n", "host.conf:2: unknown function \"nobody\""},
    {"--check", kLoad + ",nix\n",
     "host.conf:2: there is no function \"nix\" in the module"},
    {"", kLoad + "\nInit fn=test-init\n", "host.conf:3: test-init needs a name"},
    {"", "ErrorLog no/such/folder.log\n", "host.conf:2: can't open"},
    {"", "Listen 192.0.2.1:9\n", "host.conf:1: can't listen on 127.0.0.1:0,192.0.2.1:9"},
    {"--wrong", "", "--wrong"}};

// The program changes into the folder of the file, so messages name it in full.
TEST(program, refusesWhatItCannotUse) {
  EXPECT_EQ(HostProcess(kConfig, "--check").wait(), 0);
  for (const RefusedRow& row : kRefused) {
    HostProcess process("Listen 127.0.0.1:0\n" + row.config, row.argument);
    EXPECT_EQ(process.wait(), 2) << row.config;
    EXPECT_THAT(process.errors(), HasSubstr(row.error)) << row.config;
  }
}

}  // namespace
}  // namespace host
