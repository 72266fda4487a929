#include "backend/wire/request.h"

#include <gmock/gmock.h>

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

TEST(request, badBlocksAreRefusedWithTheReason) {
  const std::string uri = word(23) + text("/demo/");
  const std::string end = word(31);
  const std::string session = word(42) + text("s");
  const std::string header = word(32) + text("n") + text("v");
  const std::string whole = blockOf({});
  const std::string started = whole.substr(0, whole.size() - end.size());
  const std::string variables = started.substr(0, started.size() - uri.size());
  const std::pair<std::string, const char*> rows[] = {
      {uri + end, "wanted QUERY_STRING"},
      {word(19) + text("") + variables, "wanted REQUEST_METHOD"},
      {variables + end, "wanted the URI"},
      {started + uri + end, "wanted the end"},
      {started + session + header, "wanted the end"},
      {started + session + session + end, "wanted the end"},
      {started + header + word(30) + text("x"), "wanted the end"},
      {whole + "x", "1 bytes behind"},
      {word(19) + word(-1), "negative length -1"},
      {word(19) + word(0x7fffffff) + "abc", "beyond the end"},
      {started + word(99) + end, "item 99"}};
  for (const auto& [block, says] : rows) {
    EXPECT_THAT([bytes = block] { (void)parseServiceRequest(bytes); },
                testing::ThrowsMessage<backend::ProtocolError>(testing::HasSubstr(says)));
  }
}

}  // namespace backend_test
