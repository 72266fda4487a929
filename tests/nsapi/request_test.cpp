// What a backend sees of a request: variables, paths, the body, folder URIs.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "context/guards.h"
#include "failing_host.h"
#include "nsapi/fix_uri.h"
#include "nsapi/nsapi_request.h"

class RequestTest : public testing::Test {
 protected:
  using Pairs = std::initializer_list<std::pair<const char*, const char*>>;
  static void put(pblock* block, Pairs pairs) {
    for (const auto& [name, value] : pairs) FailingHost::set(block, name, value);
  }
  explicit RequestTest() {
    veskNSAPIVerbose = 1;
    put(host.request.reqpb, {{"uri", "/app/x"}, {"query", "a=1"}, {"both", ""}});
    put(host.request.vars, {{"auth-user", "eve"}, {"both", "vars"}});
    put(host.request.session.client, {{"ip", "10.0.0.7"}});
    put(host.request.headers,
        {{"host", "h:1"}, {"https", "mine"}, {"user-defined", "u"}});
    put(host.request.headers,
        {{"lower_one", "l"}, {"UP-PER", "U"}, {"EMPTY", ""}, {"both", "h"}});
    init_nsapi_request(req, nullptr, &host.request.session, &host.request);
    req->hasPostData = 1;
  }
  ~RequestTest() override {
    veskNSAPIVerbose = 0;
  }
  std::string variable(const char* name) {
    const char* value = req->getHeader(req, name);
    return value ? value : "<null>";
  }
  std::string body(std::int32_t length) {
    char buffer[64];
    const std::int32_t count = req->getPostData(req, buffer, length);
    return count < 0 ? "<failed>" : std::string(buffer, static_cast<std::size_t>(count));
  }
  FailingHost host;
  vesk_request record;
  vesk_request* req = &record;
};

TEST_F(RequestTest, variablesResolveInOrder) {
  const char* const rows[][3] = {
      {"REMOTE_USER", "eve", "by the table of names"},
      {"user_defined", "u", "by the table of names, in any spelling"},
      {"HOST", "h:1", "lower case with dashes"},
      {"Host", "h:1", "a name in the table, spelled otherwise"},
      {"Cookie", "<null>", "the same, and nobody has sent it"},
      {"LOWER-ONE", "l", "lower case with underscores"},
      {"up_per", "U", "upper case with dashes"},
      {"https", "mine", "the client's own spelling wins over a special name"},
      {"HTTPS", "OFF", "special"},
      {"EMPTY", "", "as spelled, even empty"},
      {"empty", "<null>", "in other spellings only what is not empty"},
      {"BOTH", "vars", "an empty value is passed over for a later block"},
      {"server-port", "8080", "special in any spelling"},
      {"SERVER_SOFTWARE", system_version(), "special"},
      {"REMOTE_HOST", "10.0.0.7", "the address when there is no name"},
      {"PATH_TRANSLATED", "<null>", "without path-info"},
      {"", "<null>", "an empty name"},
  };
  for (const auto& [name, value, why] : rows) EXPECT_EQ(variable(name), value) << why;
  EXPECT_EQ(host.client.logged("|   ip: 10.0.0.7 [Found in: sn->client]"), 1);
  EXPECT_EQ(host.client.logged("|   REMOTE_ADDR: [not found]"), 1);
  host.client.globals.Vsecurity_active = 1;
  host.client.dnsName = "eve.example";
  EXPECT_EQ(variable("HTTPS") + variable("REMOTE_HOST"), "ONeve.example");
}

// The client sends every word of the host's in some spelling, and the host knows nothing
// of its own but the query and the address.
TEST_F(RequestTest, hostsWordsComeFromHeadersOnlyWithoutTheGuard) {
  put(host.request.vars, {{"auth-user", nullptr}});
  put(host.request.session.client, {{"ip", nullptr}});
  put(host.request.headers,
      {{"auth-user", "h1"}, {"remote-user", "h2"}, {"auth_type", "h3"}});
  put(host.request.headers, {{"path-info", "h4"}, {"remote_host", "h5"}, {"ip", "h6"}});
  put(host.request.headers,
      {{"query", "h7"}, {"QUERY-STRING", "h8"}, {"SERVER_PORT", "h9"}, {"uri", "h10"}});
  put(host.request.headers, {{"keysize", "h11"}, {"content-length", "12"}});
  const char* const rows[][4] = {
      {"REMOTE_USER", "h1", "<null>", "by the host's name"},
      {"Remote-User", "h1", "<null>", "in another spelling than the client's"},
      {"AUTH_USER", "h1", "<null>", "the host's name, spelled as a variable"},
      {"auth-user", "h1", "h1", "the header of that name"},
      {"remote-user", "h2", "h2", "the header of that name"},
      {"AUTH_TYPE", "h3", "<null>", "lower case with underscores"},
      {"PATH_INFO", "h4", "<null>", "by the host's name"},
      {"PATH_TRANSLATED", "<null>", "<null>", "of the path-info that the host has"},
      {"REMOTE_HOST", "h6", "<null>", "by way of the address"},
      {"QUERY_STRING", "a=1", "a=1", "what the host knows wins"},
      {"SERVER_PORT", "h9", "8080", "a header spelled as the variable"},
      {"SCRIPT_NAME", "/app/x", "/app/x", "what the host knows wins"},
      {"HTTPS_KEYSIZE", "h11", "<null>", "a fact of the connection"},
      {"CONTENT_LENGTH", "12", "12", "a header and nothing else"},
      {"HOST", "h:1", "h:1", "a header and nothing else"},
  };
  for (const auto& [name, without, with, why] : rows) {
    req->guards = kNoGuards;
    EXPECT_EQ(variable(name), without) << why;
    req->guards = 1U << static_cast<std::uint32_t>(Guard::identity);
    EXPECT_EQ(variable(name), with) << why;
  }
}

TEST_F(RequestTest, variablesWithoutMemoryAreNull) {
  const std::string longName(64, 'x');
  put(host.request.headers, {{longName.c_str(), "there"}});
  const std::string asked(64, 'X');
  EXPECT_EQ(variable(asked.c_str()), "there");
  for (const char* name : {"HTTPS", "SERVER_PORT", "SERVER_PORT_SECURE", asked.c_str()}) {
    host.failAllocation = 1;
    EXPECT_EQ(variable(name), "<null>") << name;
  }
}

TEST_F(RequestTest, realPathOfTheOwnUriIsNotTranslatedAgain) {
  host.client.translated = "/docs/other";
  EXPECT_EQ(req->getRealPath(req, "/app/x"), nullptr);
  put(host.request.vars, {{"path", "/docs/app/x"}});
  for (const char* uri : {"/app/x", "/other"}) {
    char* path = req->getRealPath(req, uri);
    EXPECT_EQ(path, std::string("/docs") + uri);
    req->free(req, path);
  }
  host.client.translated = nullptr;
  EXPECT_EQ(req->getRealPath(req, "/none"), nullptr);
  EXPECT_EQ(host.client.logged("|   shortcut getRealPath(/app/x) = /docs/app/x"), 1);
}

TEST_F(RequestTest, bodyComesFromTheBufferThenFromTheClientUntilItFails) {
  unsigned char held[] = {'a', 'b', 'c', 'd'};
  host.request.input.inbuf = held;
  host.request.input.cursize = host.request.input.maxsize = sizeof held;
  host.client.unread = {"ef", "gh"};
  EXPECT_EQ(body(0), "");
  EXPECT_EQ(body(3), "abc");
  for (const char* part : {"d", "ef", "gh", "<failed>", ""}) EXPECT_EQ(body(64), part);
  req->hasPostData = 1;
  host.client.readFailure = -1;
  for (const char* part : {"<failed>", ""}) EXPECT_EQ(body(64), part);
  EXPECT_EQ(host.client.logged("|   inbuf has 1 bytes ready"), 1);
  EXPECT_EQ(host.client.logged("getPostData: Premature read abort on post data"), 2);
}

TEST_F(RequestTest, folderUriGetsTheFileThatTheHostChose) {
  const char* const rows[][5] = {
      {"/ctx/app/", "/docs/app/index.jsp", "/docs", "/ctx/app/index.jsp", "a tail"},
      {"/app/", "/docs/app/index.jsp", "/docs", "/app/index.jsp", "the whole URI"},
      {"/b/", "/docs/other/i.jsp", "/docs", "/b/other/i.jsp", "only the last slash"},
      {"/a/", "/x/y/home.jsp", nullptr, "/a/home.jsp", "no base"},
      {"/a/", "/x/y/home.jsp", "/z", "/a/home.jsp", "a base elsewhere"},
      {"/a/", "home.jsp", nullptr, "/a/", "a path without a slash"},
      {"/a/", "/docs/a/", "/docs", "/a/", "no file in the folder"},
      {"/a/", nullptr, "/docs", "/a/", "no path"},
  };
  for (const auto& [uri, path, base, expected, why] : rows) {
    char* fixed = fix_uri(req, uri, path, base);
    EXPECT_STREQ(fixed, expected) << why;
    req->free(req, fixed);
  }
}
