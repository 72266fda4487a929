// A page that a server is asked for: the request, and where its answer goes.
//
// Ownership: the page's; the file is the caller's. Threads: one. Failure: in words.
// Units: milliseconds.
#pragma once

#include <cstdio>
#include <string>

#include "ctl/display.h"
#include "ctl/tool_request.h"

namespace ctl {

// Where the body goes.
struct BodyWishes {
  std::FILE* file = nullptr;  // null: nowhere
  bool isTerminal = false;    // the file is one: what could act on it is made visible
  bool withHead = false;      // status and headers come first
  bool keep = false;          // in `body` of the page, up to kMostKept
};

constexpr std::size_t kMostKept = 1 << 20;
constexpr std::size_t kMostHeaders = 1000;  // that are kept of a server's

class Page : public ToolRequest {
 public:
  Page(const Limits& limits, bool verbose, const BodyWishes& wished);
  ~Page() override;

  // Asks a server: true when the answer came whole. The request must have been set.
  // What came stands in the fields below either way.
  [[nodiscard]] bool fetch(veskProxy* server);

  void onStatus(std::int32_t code, std::string_view text) noexcept override;
  void onHeader(std::string_view name, std::string_view value) noexcept override;
  [[nodiscard]] bool onBody(std::string_view bytes) noexcept override;

  std::int32_t status = 0;  // 0: the server named none
  std::string reason;
  Headers headers;
  std::int64_t bodyBytes = 0;
  std::string body;          // as far as it was wished for
  std::string writeFailure;  // why it couldn't be written; empty: it could
  double millis = 0;         // without the connect

 private:
  void forgetAnswer();
  [[nodiscard]] bool write(std::string_view bytes);
  [[nodiscard]] bool writeHead();

  BodyWishes wishes;
  VisibleStream terminal;
  bool headWritten = false;
};

}  // namespace ctl
