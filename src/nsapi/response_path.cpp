#include "nsapi/response_path.h"

#include <nsapi.h>
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "context/memory.h"
#include "context/privacy.h"
#include "context/request_block.h"
#include "context/text.h"
#include "maptable/session_outcome.h"
#include "nsapi/host_objects.h"
#include "nsapi/outcome.h"

const char* errorUrl = nullptr;

// Every 503 is redirected, a server's own too: to a browser they mean the same, and the
// site has one page for it.
void setStatus(vesk_request* req, std::int32_t status, const char* reason) {
  Request* rq = requestOf(req);
  if (status == kServiceUnavailable && errorUrl) {
    (void)pblock_nvinsert("location", errorUrl, rq->srvhdrs);
    status = kFound;
  }
  protocol_status(sessionOf(req), rq, status, reason);
}

int refuse(vesk_request* req, std::int32_t status, const char* reason) {
  req->setStatus(req, status, reason);
  return REQ_ABORTED;
}

// The host adds what it is given: two of a name would both go out.
static void replaceHeader(pblock* headers, const char* name, const char* value) {
  dropParameter(name, headers);
  (void)pblock_nvinsert(name, value, headers);
}

// One way to treat a header. `name` is the caller's spelling. Headers that the host
// looks at by itself are stored in lower case, as it knows them; any other under the
// name that came, for a client may care for its spelling.
using HeaderTreatment = void (*)(vesk_request* req, const char* name, const char* value);

// Each is a header by itself, and can't be joined with another.
static void insertCookie(vesk_request* req, const char* name, const char* value) {
  req->trace(req, "   (insert)  %s: %.200s", name, shownValue(req, name, value));
  (void)pblock_nvinsert("set-cookie", value, requestOf(req)->srvhdrs);
  noteSessionCookie(req, value);
}

// The browser talks to the web server: its name and its clock stand.
static void suppressServer(vesk_request* req, const char* name, const char* value) {
  req->trace(req, "   (suppressed) %s: %.80s", name, value);
}

static void suppressDate(vesk_request* req, const char* name, const char* value) {
  req->trace(req, "   (suppressed) %s: %.20s", name, value);
}

// What the server wants of its browser's connection is the host's to carry out.
static void replaceConnection(vesk_request* req, const char* name, const char* value) {
  req->trace(req, "   (special) %s: %.40s", name, value);
  replaceHeader(requestOf(req)->srvhdrs, "connection", value);
}

// The decimal number that a text begins with, as it is written there.
static std::string_view numberIn(const char* text) {
  text += std::strspn(text, " \f\n\r\t\v");
  if (*text == '+') ++text;
  const std::size_t sign = *text == '-' ? 1 : 0;
  return {text, sign + std::strspn(text + sign, "0123456789")};
}

static void replaceContentLength(vesk_request* req, const char* name, const char* value) {
  constexpr int kDecimal = 10;
  req->trace(req, "   (special) %s: %.20s", name, value);
  pblock* headers = requestOf(req)->srvhdrs;
  const long long length = std::strtoll(value, nullptr, kDecimal);
  if (length >= INT_MIN && length <= INT_MAX) {
    dropParameter("content-length", headers);
    (void)pblock_nninsert("content-length", static_cast<int>(length), headers);
    return;
  }
  // The host's number is an int, and a longer body must not get a wrong length; nor
  // must a number that 64 bits can't hold pass for the nearest one that they can.
  const RequestBlock text{req, copyText(req, numberIn(value))};
  replaceHeader(headers, "content-length", orElse(text.bytes, value));
}

// Hosts compare types byte by byte. Parameters behind the media type, such as a
// charset, keep their case.
static void lowerMediaType(char* text) {
  for (; *text && *text != ';'; ++text)
    *text = static_cast<char>(std::tolower(static_cast<unsigned char>(*text)));
}

static void replaceContentType(vesk_request* req, const char* /*name*/,
                               const char* value) {
  req->trace(req, "   (special) content-type: %.100s", value);
  pblock* headers = requestOf(req)->srvhdrs;
  char* lowered = req->strdup(req, value);
  if (!lowered) {
    // A type in capitals is better than none: browsers guess where there is none.
    req->log(req, "addHeader: no memory, content-type stays as it came");
    replaceHeader(headers, "content-type", value);
    return;
  }
  lowerMediaType(lowered);
  replaceHeader(headers, "content-type", lowered);
  req->free(req, lowered);
}

static void replaceOther(vesk_request* req, const char* name, const char* value) {
  replaceHeader(requestOf(req)->srvhdrs, name, value);
  req->trace(req, "   (replace) %.80s: %.200s", name, shownValue(req, name, value));
}

struct HeaderRow {
  const char* name;
  HeaderTreatment treat;
};

static constexpr HeaderRow kHeaderRows[] = {
    {"set-cookie", insertCookie},
    {"server", suppressServer},
    {"date", suppressDate},
    {"connection", replaceConnection},
    {"content-length", replaceContentLength},
    {"content-type", replaceContentType},
};

void addHeader(vesk_request* req, const char* name, const char* value) {
  HeaderTreatment treat = replaceOther;
  // In any case, for a server writes names as it likes; the first letter rules most out.
  const char first = static_cast<char>(std::tolower(static_cast<unsigned char>(*name)));
  for (const HeaderRow& row : kHeaderRows) {
    if (*row.name == first && strcasecmp(row.name, name) == 0) treat = row.treat;
  }
  treat(req, name, value);
}

// Whatever keeps the body away, a HEAD or a client that has left, the server's answer
// must be read to its end: its connection is needed again.
static void startResponse(vesk_request* req) {
  leaveOutcome(req);
  const int result = protocol_start_response(sessionOf(req), requestOf(req));
  if (result != REQ_NOACTION && result != REQ_ABORTED) return;
  req->noClientOutput = 1;
  req->trace(req, "   start_response = %s",
             result == REQ_NOACTION ? "REQ_NOACTION" : "REQ_ABORTED");
}

std::int32_t writeClient(vesk_request* req, const char* buffer, std::int32_t length) {
  if (!req->responseStarted && !req->noClientOutput) startResponse(req);
  // One write: the host's function takes all or fails. A length of 0 only starts.
  if (!req->noClientOutput && length != 0 &&
      net_write(sessionOf(req)->csd, buffer, length) < 0) {
    req->lastError = errno;
    // Counted, and no more: the conversation decides how many it takes.
    ++req->clientWriteFailures;
    return -1;
  }
  req->clientWriteFailures = 0;
  return 0;
}
