// Log lines and memory of a record over the host's functions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "context/guards.h"
#include "failing_host.h"
#include "nsapi/host_log.h"
#include "nsapi/nsapi_request.h"

using testing::ElementsAre;

class HostServices : public testing::Test {
 protected:
  ~HostServices() override {
    veskNSAPIVerbose = 0;
    veskEnabledTraceFlags = 0;
    veskUseApiAlloc = 0;
  }
  vesk_request* fill() {
    init_nsapi_request(&record, nullptr, &host.request.session, &host.request);
    return &record;
  }
  FailingHost host;
  vesk_request record;
};

TEST_F(HostServices, lineCarriesDegreeAndPrefixAndIsCut) {
  vesk_request* req = fill();
  setLogLevel(LOG_WARN);
  const std::string longest(1020, 'x');
  for (const char* more : {"", "yz"}) req->log(req, "%s%s", longest.c_str(), more);
  req->log(req, "%s", "");
  req->log(req, "%s", "100%s %n");
  req->trace(req, "off");
  req->traceE(req, kTraceState, "off");
  setLogLevel(LOG_INFORM);
  host.client.peerPort = 0;
  fill()->log(req, "nobody");
  EXPECT_THAT(
      host.client.lines,
      ElementsAre("0|veskNSAPI[4711] |" + longest, "0|veskNSAPI[4711] |" + longest,
                  "0|veskNSAPI[4711] |100%s %n", "5|veskNSAPI[0] |nobody"));
}

TEST_F(HostServices, flagsChooseAmongTheLinesOfALiveGrade) {
  veskEnabledTraceFlags = std::uint64_t{1} << 40 | kTraceDetail;
  vesk_request* req = fill();
  req->traceE(req, kTraceState, "state");
  req->traceE(req, kTraceDetail | kTraceState, "detail");
  req->traceE(req, std::uint64_t{1} << 40, "high");
  dumpHeaders(req, "not asked for");
  EXPECT_THAT(host.client.lines,
              ElementsAre("5|veskNSAPI[4711] |detail", "5|veskNSAPI[4711] |high"));
}

TEST_F(HostServices, dumpShowsVariablesAndHeadersThatAreThere) {
  veskEnabledTraceFlags = kTraceDump;
  vesk_request* req = fill();
  dumpHeaders(req, "here");
  FailingHost::set(host.request.srvhdrs, "b", "2");
  host.request.vars = nullptr;  // a host without memory gives no text either
  dumpHeaders(req, "there");
  EXPECT_THAT(host.client.lines,
              ElementsAre("5|veskNSAPI[4711] |here: vars: ",
                          "5|veskNSAPI[4711] |there: srvhdrs: b=\"2\""));
}

TEST_F(HostServices, secretsAreInTheLogOnlyWithoutTheGuard) {
  veskNSAPIVerbose = 1;
  veskEnabledTraceFlags = kTraceDump;
  for (pblock* block : {host.request.vars, host.request.srvhdrs, host.request.headers})
    for (const char* name : {"cookie", "Set-Cookie", "authorization"})
      FailingHost::set(block, name, "JSESSIONID=0123SECRET; auth=SECRET");
  FailingHost::set(host.request.vars, "path", "/docs;JSESSIONID=0123SECRETS");
  for (const bool on : {false, true}) {
    host.client.lines.clear();
    vesk_request* req = fill();
    req->guards = on ? kAllGuards : kNoGuards;
    dumpHeaders(req, "here");
    for (const char* name : {"cookie", "AUTHORIZATION"}) (void)req->getHeader(req, name);
    for (const char* name : {"set-cookie", "Authorization"})
      req->addHeader(req, name, "SECRET");
    EXPECT_EQ(host.client.logged("SECRET"), on ? 0 : 6);
    EXPECT_EQ(host.client.lines.size(), 7U);
    EXPECT_EQ(
        host.client.logged("here: vars: cookie=\"***\" Set-Cookie=\"***\" "
                           "authorization=\"***\" path=\"/docs;JSESSIONID=0123SECR...\""),
        on ? 1 : 0);
  }
}

TEST_F(HostServices, memoryFollowsTheOptionAndReportsWhatItCannotDo) {
  for (const bool pool : {true, false}) {
    veskUseApiAlloc = pool ? 1 : 0;
    vesk_request* req = fill();
    void* block = req->malloc(req, 0);
    char* copy = req->strdup(req, "copy");
    EXPECT_EQ(host.poolBlocks, pool ? 2 : 0);
    EXPECT_EQ(host.permBlocks, pool ? 0 : 2);
    req->free(req, block);
    req->free(req, copy);
    req->permFree(req, req->permStrdup(req, "copy"));
    req->permFree(req, nullptr);
    host.failAllocation = 1;
    EXPECT_EQ(req->malloc(req, -7), nullptr);
    req->free(req, nullptr);
    EXPECT_EQ(req->strdup(req, nullptr), nullptr);
  }
  std::string texts;
  for (const std::string& line : host.client.lines)
    texts += line.substr(line.rfind('|') + 1) + " ";
  EXPECT_EQ(texts,
            "nsapi_perm_free(NULL)! nsapi_malloc(-7) failed! nsapi_free(NULL)! "
            "nsapi_strdup(NULL)! nsapi_perm_free(NULL)! nsapi_perm_malloc(-7) failed! "
            "nsapi_perm_free(NULL)! nsapi_perm_strdup(NULL)! ");
}
