#include "proxy/proxy_error.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "context/vesk_error.h"
#include "proxy_fixture.h"

TEST(proxyerror, pageTellsTheReason) {
  const std::pair<std::vector<std::int32_t>, std::string> rows[] = {
      {{ECONNRESET, EPIPE, ESHUTDOWN}, "Vesk closed connection.</B>"},
      {{ETIMEDOUT, ECONNREFUSED}, "Could not connect to Vesk Server.</B>"},
      {{EVESK_PROTOCOL, 0, ENOBUFS, EHOSTDOWN, EHOSTUNREACH},
       "Vesk Connector Protocol Error.</B>"},
      {{EVESK_BUSY},
       "Application server is busy.  Either there are too many concurrent requests or "
       "the server still is starting up.</B>"}};
  const std::string start =
      "503Server Error\ncontent-type=text/html\n<H2>Server Error</H2>The server "
      "encountered an internal error and was unable to complete your request.<P><B>";
  for (const auto& [errors, message] : rows)
    for (const std::int32_t error : errors) {
      RecordedRequest t;
      t.req->lastError = error;
      proxyerror(t.req, nullptr);
      EXPECT_EQ(response(t), start + message);
      EXPECT_EQ(t.req->responseStarted, 1);
      EXPECT_EQ(t.req->lastError, error);
      EXPECT_EQ(t.leaks(), 0);
    }
}

TEST(proxyerror, withoutMemoryTheBrowserGetsNothing) {
  RecordedRequest t;
  t.failAllocation = 1;
  proxyerror(t.req, nullptr);
  EXPECT_EQ(t.status + t.writes + t.req->responseStarted, 0);
  EXPECT_EQ(t.logged("   proxyerror: <error: out of memory>"), 1);
}
