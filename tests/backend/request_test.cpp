#include "backend/wire/request.h"

#include <gtest/gtest.h>

#include "backend/wire/protocol.h"
#include "request_block.h"

namespace backend_test {

using backend::parseServiceRequest;

// What a whole block holds is seen by the page that tells it.
TEST(request, headersAreFoundAndABlockCutAnywhereIsRefused) {
  BlockParts parts{"/demo/snoop", "a=b", {{"cookie", "x=1"}, {"cookie", "y=2"}}};
  parts.attributes = {{"cert", std::string("\0\x01\xff", 3)}};
  parts.sessionId = "A001aa";
  const std::string block = blockOf(parts);
  const backend::ServiceRequest request = parseServiceRequest(block);
  EXPECT_EQ(variableOf(request, "QUERY_STRING"), "a=b");
  ASSERT_NE(headerOf(request, "Cookie"), nullptr);
  EXPECT_EQ(*headerOf(request, "Cookie"), "x=1");
  EXPECT_EQ(headerOf(request, "cook"), nullptr);
  for (std::size_t size = 0; size < block.size(); ++size) {
    EXPECT_THROW((void)parseServiceRequest(block.substr(0, size)), backend::ProtocolError)
        << "cut at " << size;
  }
}

}  // namespace backend_test
