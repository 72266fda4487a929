// Log lines and memory of a record over the host's functions.
#include <gtest/gtest.h>

#include <string>

#include "nsapi/host_log.h"
#include "nsapi/host_memory.h"
#include "nsapi/nsapi_request.h"
#include "support/memory_host.h"

class HostServices : public testing::Test {
 protected:
  ~HostServices() override {
    veskEnabledTraceFlags = 0;
    veskNSAPIVerbose = 0;
    veskUseApiAlloc = 0;
  }
  vesk_request* fill() {
    init_nsapi_request(&record, nullptr, &host.session, &host.request);
    return &record;
  }
  MemoryHost host;
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
  const std::string line = "0|veskNSAPI[4711] |" + longest + "\n";
  EXPECT_EQ(host.lines(), line + line + "0|veskNSAPI[4711] |100%s %n\n");
}

TEST_F(HostServices, flagsChooseAmongTheLinesOfALiveGrade) {
  veskEnabledTraceFlags = std::uint64_t{1} << 40 | kTraceDetail;
  vesk_request* req = fill();
  req->traceE(req, kTraceState, "state");
  req->traceE(req, kTraceDetail | kTraceState, "detail");
  req->traceE(req, std::uint64_t{1} << 40, "high");
  dumpHeaders(req, "not asked for");
  EXPECT_EQ(host.lines(), "5|veskNSAPI[4711] |detail\n5|veskNSAPI[4711] |high\n");
}

TEST_F(HostServices, dumpShowsVariablesAndHeadersThatAreThere) {
  veskEnabledTraceFlags = kTraceDump;
  vesk_request* req = fill();
  dumpHeaders(req, "here");
  MemoryHost::put(host.srvhdrs, "b", "2");
  host.failAllocation = host.allocations + 1;
  dumpHeaders(req, "there");
  EXPECT_EQ(host.lines(),
            "5|veskNSAPI[4711] |here: vars: \n"
            "5|veskNSAPI[4711] |there: srvhdrs: b=\"2\"\n");
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
    host.failAllocation = host.allocations + 1;
    EXPECT_EQ(req->malloc(req, -7), nullptr);
    req->free(req, nullptr);
    EXPECT_EQ(req->strdup(req, nullptr), nullptr);
  }
  std::string texts;
  for (const std::string& line : host.log)
    texts += line.substr(line.rfind('|') + 1) + " ";
  EXPECT_EQ(texts,
            "nsapi_perm_free(NULL)! nsapi_malloc(-7) failed! nsapi_free(NULL)! "
            "nsapi_strdup(NULL)! nsapi_perm_free(NULL)! nsapi_perm_malloc(-7) failed! "
            "nsapi_perm_free(NULL)! nsapi_perm_strdup(NULL)! ");
}

TEST_F(HostServices, recordTakesTheTimeoutsAndDoesWithoutAPort) {
  for (const int i : {0, 1, 2}) soTimeouts[i] = i + 1;
  host.peerPort = -1;
  const vesk_request* req = fill();
  EXPECT_STREQ(req->logPrefix, "veskNSAPI[0] ");
  EXPECT_EQ(req->connectTimeout, 1);
  EXPECT_EQ(req->sendTimeout, 2);
  EXPECT_EQ(req->recvTimeout, 3);
}
