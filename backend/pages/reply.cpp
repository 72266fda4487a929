#include "backend/pages/reply.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "backend/session_id.h"
#include "backend/text.h"
#include "backend/wire/protocol.h"

namespace backend {

struct ReasonRow {
  int status;
  std::string_view reason;
};

constexpr ReasonRow kReasons[] = {
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {413, "Content Too Large"},
    {418, "I'm a teapot"},
    {429, "Too Many Requests"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
};

constexpr std::string_view kStyle = R"(
:root{color-scheme:light}
*{box-sizing:border-box}
body{margin:0;background:#f4f5f7;color:#1f2733;font:16px/1.5 system-ui,sans-serif}
main{max-width:62rem;margin:0 auto;padding:1.5rem 1rem 3rem}
h1{font-size:1.6rem;margin:0 0 .25rem}
h2{font-size:1.1rem;margin:0 0 .6rem}
section{background:#fff;border:1px solid #dde1e8;border-radius:.6rem;
padding:1rem 1.2rem;margin-top:1rem;overflow-x:auto}
.badge{display:inline-block;color:#fff;border-radius:.5rem;padding:.15rem .8rem;
font:700 1.5rem/1.4 ui-monospace,monospace}
.top{display:flex;flex-wrap:wrap;gap:.6rem 1.2rem;align-items:center}
.quiet{color:#5c6778}
section p{margin:0}
table{border-collapse:collapse;width:100%}
th,td{text-align:left;vertical-align:top;padding:.25rem .9rem .25rem 0;
border-bottom:1px solid #eef0f4;overflow-wrap:anywhere}
th{font-weight:600;white-space:nowrap;width:1%}
td,code{font-family:ui-monospace,monospace;font-size:.9rem}
ul{margin:0;padding:0;list-style:none;display:grid;gap:.5rem 1.5rem;
grid-template-columns:repeat(auto-fill,minmax(17rem,1fr))}
a{color:#1a56b0}
)";

std::string_view reasonOf(int status) {
  for (const ReasonRow& row : kReasons) {
    if (row.status == status) return row.reason;
  }
  return "Status";
}

bool hasBody(int status) {
  return status != 204 && status != 205 && status != 304;
}

void putHead(const PageCall& call, const ReplyHead& head) {
  call.exchange.putStatus(head.status, reasonOf(head.status));
  std::string lines;
  if (!head.type.empty()) {
    lines.append("Content-Type: ").append(head.type).append("\r\n");
  }
  if (head.length) {
    lines.append("Content-Length: ").append(std::to_string(*head.length)).append("\r\n");
  }
  // A page tells who has answered, which a copy couldn't.
  lines.append("Cache-Control: no-store\r\n");
  call.exchange.putHeaderLines(lines);
}

void putBlock(const PageCall& call, std::string_view block) {
  if (!call.head) call.exchange.putBody(block);
}

// A status without a body has no type and no length either: a length of 0 on a
// 304 would say that the page is empty.
void sendReply(const PageCall& call, int status, std::string_view type,
               std::string_view body) {
  if (!hasBody(status)) {
    putHead(call, {status, {}, std::nullopt});
  } else {
    putHead(call, {status, type, static_cast<std::int64_t>(body.size())});
    putBlock(call, body);
  }
  call.exchange.finish();
}

void sendJson(const PageCall& call, const nlohmann::ordered_json& value) {
  sendReply(call, 200, "application/json", value.dump(2) + "\n");
}

void sendHtml(const PageCall& call, int status, std::string_view title,
              std::string_view content) {
  std::string page;
  page.append("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n")
      .append("<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">\n")
      .append("<title>")
      .append(htmlOf(title))
      .append("</title>\n<style>")
      .append(kStyle)
      .append("</style></head>\n<body><main>\n")
      .append(content)
      .append("</main></body></html>\n");
  sendReply(call, status, "text/html; charset=utf-8", page);
}

void sendMessage(const PageCall& call, int status, std::string_view sentence) {
  const std::string title = std::to_string(status) + " " + std::string(reasonOf(status));
  const std::string content = "<h1>" + htmlOf(title) + "</h1>\n<p>" + htmlOf(sentence) +
                              "</p>\n<p class=\"quiet\">Server " +
                              htmlOf(call.server.options.repId) + " at " +
                              htmlOf(call.connection.local()) + "</p>\n";
  sendHtml(call, status, title, content);
}

void pauseFor(const PageCall& call, std::int64_t milliseconds) {
  if (milliseconds == 0) return;
  if (call.server.connections.pause(std::chrono::milliseconds(milliseconds))) return;
  throw BrokenOff("the server is going down");
}

nlohmann::ordered_json serverFacts(const PageCall& call) {
  return {{"address", call.connection.local()},
          {"rep_id", call.server.options.repId},
          {"pid", getpid()}};
}

bool isMeantForAnother(const PageCall& call) {
  const std::string_view only = valueOf(call.query, "only", {});
  return !only.empty() && only != call.server.options.repId;
}

}  // namespace backend
