#include "ctl/tool_request.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "context/clock.h"
#include "context/guards.h"
#include "context/memory.h"
#include "context/request_setup.h"
#include "context/sockets.h"
#include "ctl/display.h"
#include "proxy/replay.h"

namespace ctl {

// What a frame may announce: more than any server sends in one piece.
constexpr std::int32_t kMostBlock = 256 << 20;
constexpr std::size_t kFirstBytes = 16;
constexpr std::size_t kLineSize = 1024;
constexpr double kMicrosPerMilli = 1000.0;

static ToolRequest& toolOf(const vesk_request* req) {
  return *static_cast<ToolRequest*>(req->rq);
}

// Two spellings of a name: case doesn't count, and variables have underscores where
// headers have dashes.
static bool isSameName(std::string_view one, std::string_view other) {
  const auto plain = [](char c) {
    return c == '-' ? '_'
                    : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  };
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [plain](char a, char b) { return plain(a) == plain(b); });
}

static const char* findIn(const Headers& pairs, const char* name) {
  const auto found = std::find_if(pairs.begin(), pairs.end(), [name](const auto& pair) {
    return isSameName(pair.first, name);
  });
  return found == pairs.end() ? nullptr : found->second.c_str();
}

// Nothing may be thrown here: the connector's code, which calls these, knows no
// exceptions.
struct ToolOperations {
  static const char* getHeader(vesk_request* req, const char* name) {
    return toolOf(req).findHeader(name);
  }

  // No file stands behind a URI here.
  static char* getRealPath(vesk_request* /*req*/, const char* /*uri*/) {
    return nullptr;
  }

  static std::int32_t getPostData(vesk_request* req, char* buffer, std::int32_t length) {
    ToolRequest& tool = toolOf(req);
    const std::string_view left = std::string_view(tool.body).substr(tool.bodyRead);
    const std::size_t count = left.copy(buffer, static_cast<std::size_t>(length));
    tool.bodyRead += count;
    return static_cast<std::int32_t>(count);
  }

  static void setStatus(vesk_request* req, std::int32_t status, const char* reason) {
    toolOf(req).onStatus(status, reason);
  }

  static void addHeader(vesk_request* req, const char* name, const char* value) {
    toolOf(req).onHeader(name, value);
  }

  static std::int32_t writeClient(vesk_request* req, const char* buffer,
                                  std::int32_t length) {
    if (length == 0) return 0;
    return toolOf(req).onBody({buffer, static_cast<std::size_t>(length)}) ? 0 : -1;
  }

  static std::int32_t connect(vesk_request* req, const sockaddr_in* address) {
    LineNotes& notes = toolOf(req).notes;
    notes.connecting = true;
    const std::int64_t begin = monotonicMicros();
    const std::int32_t sock = veskConnect(req, address);
    notes.connectMillis =
        static_cast<double>(monotonicMicros() - begin) / kMicrosPerMilli;
    notes.connected = sock >= 0;
    return sock;
  }

  static std::int32_t recv(vesk_request* req, std::int32_t sock, void* buffer,
                           std::int32_t length, veskProxy* proxy) {
    const std::int32_t count = veskRecv(req, sock, buffer, length, proxy);
    if (count > 0) noteReceived(req, static_cast<const char*>(buffer), count);
    return count;
  }

  static void noteReceived(vesk_request* req, const char* bytes, std::int32_t count) {
    LineNotes& notes = toolOf(req).notes;
    notes.received += count;
    const std::size_t room = kFirstBytes - std::min(kFirstBytes, notes.firstBytes.size());
    notes.firstBytes.append(bytes, std::min(room, static_cast<std::size_t>(count)));
  }

  // A server that announces a gigabyte must not get it: the tool runs beside others.
  static void* allocate(vesk_request* req, std::int32_t size) {
    if (size <= kMostBlock) return doMalloc(req, size);
    toolOf(req).notes.tooLarge = true;
    return nullptr;
  }

  [[gnu::format(printf, 1, 0)]] static std::string lineOf(const char* format,
                                                          va_list args) {
    char line[kLineSize];
    (void)std::vsnprintf(line, sizeof line, format, args);
    return line;
  }

  // Of what is logged when a page can't be served, the line in place of an error page
  // tells nothing that the error doesn't.
  static void noteLog(ToolRequest& tool, const std::string& line) {
    const bool instead = line.find("deferred error") != std::string::npos;
    if (tool.notes.firstLog.empty() && !instead) tool.notes.firstLog = line;
    if (tool.isVerbose) complain(visible(line, kLineSize));
  }

  [[gnu::format(printf, 2, 3)]] static void log(vesk_request* req, const char* format,
                                                ...) {
    va_list args;
    va_start(args, format);
    noteLog(toolOf(req), lineOf(format, args));
    va_end(args);
  }

  [[gnu::format(printf, 2, 3)]] static void trace(vesk_request* /*req*/,
                                                  const char* format, ...) {
    va_list args;
    va_start(args, format);
    complain(visible(lineOf(format, args), kLineSize));
    va_end(args);
  }

  [[gnu::format(printf, 3, 4)]] static void traceE(vesk_request* /*req*/,
                                                   std::uint64_t /*flags*/,
                                                   const char* format, ...) {
    va_list args;
    va_start(args, format);
    complain(visible(lineOf(format, args), kLineSize));
    va_end(args);
  }

  static void install(vesk_request* req, bool verbose) {
    req->getHeader = getHeader;
    req->getRealPath = getRealPath;
    req->getPostData = getPostData;
    req->setStatus = setStatus;
    req->addHeader = addHeader;
    req->writeClient = writeClient;
    req->connect = connect;
    req->recv = recv;
    req->malloc = allocate;
    req->log = log;
    if (verbose) req->trace = trace;
    if (verbose) req->traceE = traceE;
  }
};

ToolRequest::ToolRequest(const Limits& limits, bool verbose) : isVerbose(verbose) {
  init_vesk_request(&ownRecord);
  ownRecord.rq = this;
  ToolOperations::install(&ownRecord, verbose);
  ownRecord.connectTimeout = limits.connect;
  ownRecord.sendTimeout = limits.conversation;
  ownRecord.recvTimeout = limits.conversation;
  ownRecord.conversationLimit = limits.conversation;
  ownRecord.guards = kAllGuards;
  // The tool tells in its own words what failed; no error page passes for a server's.
  ownRecord.deferError = 1;
}

ToolRequest::~ToolRequest() {
  restart();
}

void ToolRequest::restart() {
  ownRecord.freeAttributes(&ownRecord);
  ownRecord.freeAttributeNames(&ownRecord);
  releaseKeptBlocks(&ownRecord);
  endReplay(&ownRecord);
  ownRecord.replay = {};
  // What failed before must not keep the next conversation from its connect.
  ownRecord.lastError = 0;
  ownRecord.responseStarted = 0;
  ownRecord.clientWriteFailures = 0;
  bodyRead = 0;
  ownRecord.hasPostData = body.empty() ? 0 : 1;
  notes = {};
}

static std::string inLowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

void ToolRequest::setTarget(const std::string& newMethod, const std::string& target,
                            const Headers& sent) {
  const std::size_t mark = std::min(target.find('?'), target.size());
  method = newMethod;
  uri = target.substr(0, mark);
  headers = sent;
  headerNames.clear();
  headerValues.clear();
  for (auto& [name, value] : headers) {
    name = inLowerCase(name);
    headerNames.push_back(name.c_str());
    headerValues.push_back(value.c_str());
  }
  headerNames.push_back(nullptr);
  headerValues.push_back(nullptr);
  ownRecord.method = method.c_str();
  ownRecord.uri = uri.c_str();
  ownRecord.headerNames = headerNames.data();
  ownRecord.headerValues = headerValues.data();
  setVariable("REQUEST_METHOD", method);
  setVariable("SCRIPT_NAME", uri);
  setVariable("QUERY_STRING", mark < target.size() ? target.substr(mark + 1) : "");
  setVariable("SERVER_PROTOCOL", "HTTP/1.1");
}

void ToolRequest::setBody(std::string bytes) {
  body = std::move(bytes);
  restart();
}

void ToolRequest::setVariable(const std::string& name, const std::string& value) {
  std::erase_if(variables, [&name](const auto& pair) { return pair.first == name; });
  variables.emplace_back(name, value);
}

// What the web server would say itself comes before what a browser claims.
const char* ToolRequest::findHeader(const char* name) const {
  const char* value = findIn(variables, name);
  return value ? value : findIn(headers, name);
}

}  // namespace ctl
