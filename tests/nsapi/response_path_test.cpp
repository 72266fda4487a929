#include "nsapi/response_path.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>

#include "failing_host.h"
#include "nsapi/nsapi_request.h"
#include "nsapi/response_mark.h"

class ResponsePath : public testing::Test {
 protected:
  explicit ResponsePath() {
    init_nsapi_request(req, nullptr, &host.request.session, &host.request);
  }
  FailingHost host;
  vesk_request record;
  vesk_request* req = &record;
};

TEST_F(ResponsePath, headersAreTreatedByName) {
  // What is added, and what the host then has under which name.
  const char* const rows[][5] = {
      {"Set-Cookie", "a=1", "set-cookie", "a=1", "inserted"},
      {"SET-COOKIE", "b=2", "set-cookie", "a=1|b=2", "alongside"},
      {"Server", "backend", "server", "-", "the host's stands"},
      {"Connection", "close", "connection", "close", "replaced"},
      {"connection", "keep", "connection", "keep", "replaced"},
      {"Content-Length", "12 bytes", "content-length", "12", "a number"},
      {"content-length", "x", "content-length", "0", "no number"},
      {"content-length", " +5000000000 b", "content-length", "5000000000", "long"},
      {"content-length", "99999999999999999999", "content-length", "99999999999999999999",
       "beyond 64 bits"},
      {"Content-Type", "TEXT/Html; C=U", "content-type", "text/html; C=U", "lowered"},
      {"content-type", "IMAGE/PNG", "content-type", "image/png", "no parameters"},
      {"X-One", "1", "X-One", "1", "any other"},
      {"X-One", "2", "X-One", "2", "replaced by exact spelling"},
      {"x-one", "3", "X-One", "2", "another spelling stays apart"},
  };
  for (const auto& [name, value, stored, values, why] : rows) {
    req->addHeader(req, name, value);
    EXPECT_EQ(FailingHost::get(host.request.srvhdrs, stored), values) << why;
  }
  host.failAllocation = 1;
  req->addHeader(req, "content-type", "Text/Html");
  EXPECT_EQ(FailingHost::get(host.request.srvhdrs, "content-type"), "Text/Html")
      << "no memory";
  EXPECT_EQ(host.client.logged("addHeader: no memory, content-type stays as it came"), 1);
}

// Whatever memory fails on the way, nothing of the failed attempt is left.
TEST_F(ResponsePath, restoredResponseHasNothingOfAFailedAttempt) {
  pblock* headers = host.request.srvhdrs;
  const auto all = [headers] { return std::string(pblock_pblock2str(headers, nullptr)); };
  // The allocation of the mark and the insertion of the restoration that fail, if any;
  // the status before; the headers afterwards.
  const std::tuple<int, int, short, const char*> rows[] = {
      {0, 0, 0, "x-own=\"1\" vary=\"a\""},
      {0, 0, 201, "x-own=\"1\" vary=\"a\""},
      {0, 1, 0, "vary=\"a\""},
      {1, 0, 0, ""},
      {2, 0, 0, ""},
      {5, 0, 0, ""},
  };
  for (const auto& [allocation, insertion, status, left] : rows) {
    for (const char* name : {"x-own", "vary"}) FailingHost::set(headers, name, nullptr);
    for (const auto& [name, value] : {std::pair{"x-own", "1"}, {"vary", "a"}})
      FailingHost::set(headers, name, value);
    host.request.status_num = status;
    host.failAllocation = allocation;
    req->markResponse(req);
    for (const char* name : {"content-length", "Content-Encoding", "x-own", "set-cookie"})
      req->addHeader(req, name, "3");
    req->setStatus(req, 404, "Of the first server");
    host.failInsertion = insertion;
    req->restoreResponse(req);
    EXPECT_EQ(all(), left) << allocation << insertion;
    EXPECT_EQ(host.request.status_num, status);
    (void)req->writeClient(req, nullptr, 0);
    EXPECT_EQ(host.request.reason, nullptr) << "nor its reason";
    releaseResponseMark(req);
    EXPECT_EQ(host.permBlocks, 0);
    host.request.responseStarted = false;
  }
  EXPECT_EQ(host.client.logged("no memory to bring back the header x-own"), 1);
  EXPECT_EQ(host.client.logged("no memory to keep headers of the response"), 3);
}

TEST_F(ResponsePath, responseThatWasNotMarkedStays) {
  req->addHeader(req, "x-own", "1");
  req->restoreResponse(req);
  EXPECT_EQ(FailingHost::get(host.request.srvhdrs, "x-own"), "1");
}

TEST_F(ResponsePath, bodyThatTheHostWantsNotIsDroppedWithSuccess) {
  for (const int result : {REQ_NOACTION, REQ_ABORTED}) {
    host.request.responseStarted = false;
    req->noClientOutput = 0;
    req->clientWriteFailures = 3;
    host.client.startResult = result;
    host.client.writeError = EPIPE;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(req->writeClient(req, "ab", 2), 0);
    EXPECT_EQ(req->clientWriteFailures, 0);
  }
  EXPECT_EQ(host.client.starts.size(), 2U);
}

TEST_F(ResponsePath, bodyStartsTheResponseAndCountsFailures) {
  EXPECT_EQ(req->writeClient(req, nullptr, 0), 0);
  req->responseStarted = 1;  // as the caller of the first write says
  host.client.writeError = EPIPE;
  for (const int failures : {1, 2}) {
    EXPECT_EQ(req->writeClient(req, "ab", 2), -1);
    EXPECT_EQ(req->clientWriteFailures, failures);
  }
  EXPECT_EQ(req->lastError, EPIPE);
  host.client.writeError = 0;
  EXPECT_EQ(req->writeClient(req, "cd", 2), 0);
  EXPECT_EQ(req->clientWriteFailures, 0);
  EXPECT_EQ(host.client.starts.size(), 1U);
  EXPECT_EQ(host.client.body, "cd");
}
