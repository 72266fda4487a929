// The page for people: who answered, what arrived, where to go.

#include <unistd.h>

#include "backend/pages/reply.h"
#include "backend/session_id.h"
#include "backend/text.h"

namespace backend {

constexpr std::size_t kShownAttribute = 400;  // characters of an attribute's value

struct LinkRow {
  std::string_view target;
  std::string_view what;
};

constexpr LinkRow kLinks[] = {
    {"session", "count the visits of a session"},
    {"session?end=1", "end the session"},
    {"snoop?header=user-agent&realpath=/demo/", "all that arrived, as JSON"},
    {"upload", "send a file, get its SHA-256"},
    {"bytes?n=1000000", "a million bytes"},
    {"stream?blocks=10&size=1000&ms=300", "ten blocks, one by one"},
    {"marked?mark=mine&blocks=5", "blocks that tell whose they are"},
    {"sleep?ms=2000", "an answer after two seconds"},
    {"status?code=418", "any status code"},
    {"attribute?name=colour&value=blue", "set an attribute of the request"},
    {"busy", "a server that refuses"},
    {"die?at=start", "a server that dies before it answers"},
    {"die?at=data", "a server that dies in mid-answer"},
};

// A colour of its own for each replication id, dark enough for white text.
static int hueOf(std::string_view repId) {
  unsigned int hash = 7;
  for (const char c : repId) hash = hash * 131U + static_cast<unsigned char>(c);
  return static_cast<int>(hash * 2654435761U % 360U);
}

// The folder in which the other pages are found from here. A page that came by
// its ending, such as /index.jsp, stands in a folder that may not be mapped.
static std::string linkBase(const PageCall& call) {
  std::string first;
  for (const Mapping& mapping : call.server.options.mappings) {
    const bool isFolder = mapping.pattern.size() > 2 && mapping.pattern.ends_with("/*") &&
                          mapping.pattern.find('*') == mapping.pattern.size() - 1 &&
                          !mapping.pattern.starts_with("//");
    if (!isFolder) continue;
    const std::string folder = mapping.pattern.substr(0, mapping.pattern.size() - 1);
    if (call.request.uri.starts_with(folder)) return {};
    if (first.empty()) first = folder;
  }
  return first;
}

static std::string rowOf(std::string_view name, std::string_view value) {
  return "<tr><th scope=\"row\">" + htmlOf(name) + "</th><td>" + htmlOf(value) +
         "</td></tr>\n";
}

static std::string tableOf(std::string_view title, const std::string& rows) {
  if (rows.empty()) return {};
  return "<section><h2>" + std::string(title) + "</h2><table>\n" + rows +
         "</table></section>\n";
}

static std::string serverPart(const PageCall& call) {
  const std::string& repId = call.server.options.repId;
  return "<h1>Served by a Vesk application server</h1>\n"
         "<section class=\"top\"><span class=\"badge\" style=\"background:hsl(" +
         std::to_string(hueOf(repId)) + ",65%,32%)\">" + htmlOf(repId) +
         "</span><span>address <code>" + htmlOf(call.connection.local()) +
         "</code></span><span>process <code>" + std::to_string(getpid()) +
         "</code></span></section>\n";
}

static std::string sessionPart(const PageCall& call) {
  const std::optional<SessionId> session = sessionIdOf(call.request);
  std::string text = "<section><h2>Session</h2><p>";
  if (!session) {
    return text + "None yet: <a href=\"" + htmlOf(linkBase(call)) +
           "session\">begin one</a>.</p></section>\n";
  }
  const auto count = call.server.sessions.peek(session->id);
  text += "<code>" + htmlOf(sessionIdText(*session)) + "</code><br>owner " +
          htmlOf(session->owner) + ", ";
  text += count ? "counted here: " + std::to_string(*count) : "not known to this server";
  return text + "</p></section>\n";
}

static std::string linkPart(const PageCall& call) {
  std::string text = "<section><h2>Other pages</h2><ul>\n";
  const std::string base = linkBase(call);
  for (const LinkRow& link : kLinks) {
    text += "<li><a href=\"" + htmlOf(base) + htmlOf(link.target) + "\">" +
            htmlOf(link.target.substr(0, link.target.find('?'))) +
            "</a> <span class=\"quiet\">" + htmlOf(link.what) + "</span></li>\n";
  }
  return text + "</ul></section>\n";
}

static std::string variableRows(const ServiceRequest& request) {
  std::string rows = rowOf("URI", request.uri);
  for (std::size_t i = 0; i < kVariableCount; ++i) {
    rows += rowOf(kVariables[i].name, request.variables[i]);
  }
  if (request.extra) rows += rowOf("Extra", *request.extra);
  return rows;
}

static std::string namedRows(const std::vector<NamedText>& texts) {
  std::string rows;
  for (const NamedText& text : texts) {
    rows += rowOf(text.name, text.value.substr(0, kShownAttribute));
  }
  return rows;
}

// index.jsp: HTML for people.
void showIndex(const PageCall& call) {
  const ServiceRequest& request = call.request;
  const std::string title = "Vesk server " + call.server.options.repId;
  sendHtml(call, 200, title,
           serverPart(call) + sessionPart(call) + linkPart(call) +
               tableOf("Request", variableRows(request)) +
               tableOf("Headers", namedRows(request.headers)) +
               tableOf("Attributes", namedRows(request.attributes)));
}

}  // namespace backend
