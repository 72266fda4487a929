#include "http/response.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "layer/parameters.h"

namespace host {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// Writes "|" out as a line end.
std::string lines(std::string text) {
  for (std::size_t at; (at = text.find('|')) != std::string::npos;)
    text.replace(at, 1, "\r\n");
  return text;
}

// `headers` holds "name: value|" each.
ResponseHead head(int status, std::string_view headers, HeadSettings settings) {
  settings.date = "D";
  settings.server = "S";
  pblock* block = newParameters();
  for (std::size_t end; (end = headers.find('|')) != std::string_view::npos;
       headers.remove_prefix(end + 1)) {
    std::string name(headers.substr(0, headers.find(": ")));
    std::string value(headers.substr(name.size() + 2, end - name.size() - 2));
    addParameter(block, name.c_str(), value.c_str());
  }
  ResponseHead result = buildHead(status, nullptr, block, settings);
  freeParameters(block);
  return result;
}

constexpr HeadSettings kNew{true, false, true, nullptr, {}, {}};
constexpr HeadSettings kNewHead{true, true, true, "failed", {}, {}};
constexpr HeadSettings kNewClose{true, false, false, nullptr, {}, {}};
constexpr HeadSettings kNewFailed{true, false, true, "failed", {}, {}};
constexpr HeadSettings kOld{false, false, true, nullptr, {}, {}};

struct FramingRow {
  int status;
  Framing framing;
  HeadSettings settings;
  const char* given;
  const char* sent;  // behind the host's own headers
};

using enum Framing;

// The first good length counts and the others go, as does what is the host's
// own. A folded value goes out as it came, a line end alone doesn't.
const FramingRow kFramingRows[] = {
    {200, chunked, kNew, "", "Transfer-Encoding: chunked|"},
    {200, untilClose, kOld, "", "Connection: close|"},
    {200, counted, kOld, "content-length: 7|",
     "content-length: 7|Connection: keep-alive|"},
    {200, counted, kNewClose, "content-length: 7|",
     "content-length: 7|Connection: close|"},
    {200, none, kNewHead, "content-length: 7|", "content-length: 7|"},
    {503, counted, kNewFailed, "content-length: 7|", "content-length: 7|"},
    {503, chunked, kNewFailed, "", "Transfer-Encoding: chunked|Connection: close|"},
    {200, none, kNewHead, "", ""},
    {204, none, kNew, "content-length: 7|", ""},
    {304, none, kNew, "etag: x|", "etag: x|"},
    {200, chunked, kNew, "content-length: -5|", "Transfer-Encoding: chunked|"},
    {200, counted, kNew, "content-length: 7x|Content-Length: 8|", "Content-Length: 8|"},
    {200, counted, kNew, "content-length: 3|Content-Length: 8|", "content-length: 3|"},
    {200, chunked, kNew, "Transfer-Encoding: chunked|Keep-Alive: 1|DATE: x|server: y|",
     "Transfer-Encoding: chunked|"},
    {200, counted, kNew, "content-length: 0|Connection: Close|",
     "content-length: 0|Connection: close|"},
    {200, none, kNewHead, "Set-Cookie: a|Set-Cookie: b|X: |",
     "Set-Cookie: a|Set-Cookie: b|X: |"},
    {200, none, kNewHead, "Status: x|A: 1\r\n\tmore|B: 2\r\n|",
     "Status: x|A: 1|\tmore|"}};

TEST(head, framingFollowsStatusHeadersAndClient) {
  for (const FramingRow& row : kFramingRows) {
    ResponseHead made = head(row.status, row.given, row.settings);
    EXPECT_THAT(made.text, EndsWith(lines(std::string("|Server: S|") + row.sent + "|")));
    EXPECT_EQ(made.framing, row.framing) << row.given;
    EXPECT_EQ(made.close, made.text.find("Connection: close") != std::string::npos)
        << row.given;
  }
}

TEST(head, nothingCanEndItsLineEarly) {
  ResponseHead made =
      head(200, "A: x\r\nB: y|C\r\nD: x|E:: x|: x|F: x\x7f|G: \xc3\xa4\ty|", kNew);
  EXPECT_THAT(made.text, HasSubstr("\r\nG: \xc3\xa4\ty\r\n"));
  EXPECT_THAT(made.text, Not(HasSubstr("x")));
  EXPECT_EQ(made.rejected, "A, C\r\nD, E:, , F");
}

class RecordingSink final : public ByteSink {
 public:
  bool send(std::span<iovec> parts, bool more) override {
    all += more ? "" : ">";
    for (const iovec& part : parts) {
      all.append(static_cast<const char*>(part.iov_base), part.iov_len);
    }
    return true;
  }
  bool sendFile(int, std::int64_t, std::int64_t) override {
    return false;
  }
  std::string all;
};

enum class End { keep, close, cut };

struct WriterRow {
  Framing framing;
  int length;
  std::vector<std::string> blocks;
  End end;
  const char* writes;  // each behind a ">"
  bool keeps;          // the connection
};

const WriterRow kWriterRows[] = {
    {chunked,
     0,
     {"abc", "", "0123456789abcdef"},
     End::keep,
     ">H||3|abc|>10|0123456789abcdef|>0||",
     true},
    {chunked, 0, {}, End::keep, ">H||0||", true},
    {chunked, 0, {}, End::close, ">H|Connection: close||0||", false},
    {chunked, 0, {}, End::cut, ">H||", false},
    {chunked, 0, {"abc"}, End::close, ">H||3|abc|>0||", true},
    {chunked, 0, {"abc"}, End::cut, ">H||3|abc|", false},
    {counted, 4, {"abc", "def", "ghi"}, End::keep, ">H||abc>d", true},
    {counted, 4, {"abc"}, End::keep, ">H||abc", false},
    {none, 0, {"abc"}, End::keep, ">H||", true}};

TEST(writer, headLeavesWithTheFirstBlockAndSaysWhatIsKnown) {
  for (const WriterRow& row : kWriterRows) {
    RecordingSink sink;
    ResponseWriter writer(&sink);
    writer.start({lines("H||"), 3, row.framing, row.length, false, {}});
    for (const std::string& block : row.blocks) {
      EXPECT_TRUE(writer.write(block.data(), block.size()));
    }
    const bool ended =
        row.end == End::cut ? writer.cut() : writer.finish(row.end == End::keep);
    EXPECT_EQ(ended, row.keeps) << row.writes;
    EXPECT_EQ(sink.all, lines(row.writes));
  }
}

}  // namespace
}  // namespace host
