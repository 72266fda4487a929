#include "proxy/proxy_marshal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "context/memory.h"
#include "context/request_block.h"
#include "context/text.h"
#include "proxy/replay.h"
#include "proxy/wire.h"

// Sizes of the items without their texts.
constexpr std::int32_t kOneStringItem = 2 * kWordSize;  // id, length
constexpr std::int32_t kTwoStringItem = 3 * kWordSize;  // id, length, length

// What goes into one frame, gathered once for both passes.
struct RequestItems {
  vesk_request* req;
  const char* extra;                      // may be null
  char** attributeNames;                  // the record's; null for none
  const char* variables[kVariableCount];  // to be given back with freeHeader
};

// A frame in the making: `position` is where the next byte goes.
struct FrameWriter {
  char* buffer;
  std::int32_t position;
};

static void putItemWord(FrameWriter* out, std::int32_t word) {
  out->position = appendWord(out->buffer, out->position, word);
}

static void putItem(FrameWriter* out, std::int32_t id, const char* text) {
  putItemWord(out, id);
  out->position = appendString(out->buffer, out->position, text);
}

// The bytes of an attribute's value. A size below 0 counts as none.
static std::int32_t attributeSize(vesk_request* req, const char* name) {
  return std::max(req->getAttributeSize(req, name), 0);
}

// Two passes, one that measures and one that writes: the frame is one block, and its
// length stands in front. Both must see the same values, so they are fetched once.
static std::int64_t attributesSize(const RequestItems& items) {
  vesk_request* req = items.req;
  std::int64_t total = 0;
  for (char** name = items.attributeNames; name && *name; ++name) {
    const std::int32_t size = attributeSize(req, *name);
    total += kTwoStringItem + textLength(*name) + size;
    req->trace(req, "  %.200s: %d bytes", *name, size);
  }
  return total;
}

static std::int64_t fetchVariables(RequestItems* items) {
  vesk_request* req = items->req;
  if (req->getVariables) {
    req->getVariables(req, items->variables);
  } else {
    for (std::int32_t i = 0; i < kVariableCount; ++i)
      items->variables[i] = req->getHeader(req, VARIABLE_NAMES[i].name);
  }
  std::int64_t total = 0;
  for (const char* value : items->variables) total += kOneStringItem + textLength(value);
  return total;
}

// A name without its value would shift all that follows: both arrays, or none.
static std::int64_t headersSize(const vesk_request* req) {
  if (!req->headerNames || !req->headerValues) return 0;
  std::int64_t total = 0;
  for (std::int32_t i = 0; req->headerNames[i]; ++i)
    total += kTwoStringItem + textLength(req->headerNames[i]) +
             textLength(req->headerValues[i]);
  return total;
}

// Each term here has its counterpart in putItems, in the same order.
static std::int64_t otherItemsSize(const RequestItems& items) {
  const vesk_request* req = items.req;
  std::int64_t total = kOneStringItem + textLength(req->uri);
  if (items.extra) total += kOneStringItem + textLength(items.extra);
  total += headersSize(req);
  if (req->sessionId) total += kOneStringItem + textLength(req->sessionId);
  return total + kWordSize;
}

static void putAttributes(FrameWriter* out, const RequestItems& items) {
  vesk_request* req = items.req;
  if (items.attributeNames) req->trace(req, "PROXY_SET_ATTRIBUTE ->");
  for (char** name = items.attributeNames; name && *name; ++name) {
    const std::int32_t size = attributeSize(req, *name);
    putItem(out, PROXY_SET_ATTRIBUTE, *name);
    putItemWord(out, size);
    if (size > 0) req->getAttribute(req, *name, out->buffer + out->position);
    out->position += size;
    req->trace(req, "  %.200s %d bytes", *name, size);
  }
}

static void freeVariables(const RequestItems& items) {
  // Also those that are null: freeHeader is the host's to judge.
  for (const char* value : items.variables) items.req->freeHeader(items.req, value);
}

static void putHeaders(FrameWriter* out, const vesk_request* req) {
  if (!req->headerNames || !req->headerValues) return;
  for (std::int32_t i = 0; req->headerNames[i]; ++i) {
    putItem(out, PROXY_SET_HEADER, req->headerNames[i]);
    out->position = appendString(out->buffer, out->position, req->headerValues[i]);
  }
}

// The order of the items is the protocol's; the end mark tells the server where the block
// ends, whatever the length in front says.
static void putItems(FrameWriter* out, const RequestItems& items) {
  const vesk_request* req = items.req;
  putAttributes(out, items);
  for (std::int32_t i = 0; i < kVariableCount; ++i)
    putItem(out, VARIABLE_NAMES[i].id, items.variables[i]);
  freeVariables(items);
  putItem(out, PROXY_SET_URI, req->uri);
  if (items.extra) putItem(out, PROXY_SET_EXTRA, items.extra);
  putHeaders(out, req);
  if (req->sessionId) putItem(out, PROXY_SET_SESSION_ID, req->sessionId);
  putItemWord(out, PROXY_HEADERS_END);
}

// The buffer of a frame with a block of `blockSize` bytes, or null with a log
// line and lastError. It is one byte longer than the frame.
static char* allocateFrame(vesk_request* req, std::int64_t blockSize) {
  const std::int64_t size = blockSize + kFrameHead + 1;
  auto* buffer = static_cast<char*>(newBlock(req, size));
  if (buffer) return buffer;
  req->log(req, "malloc(%d) failed in sendAllHeaders", clampToInt32(size));
  req->lastError = ENOBUFS;
  return nullptr;
}

// Fetches the names of the attributes; null names are right only for an empty
// list. 0, or -1 with a log line and lastError.
static std::int32_t fetchAttributeNames(RequestItems* items) {
  vesk_request* req = items->req;
  items->attributeNames = req->getAttributeNames(req);
  if (items->attributeNames || !req->attributes) return 0;
  req->log(req, "no memory for the attribute names, request not sent");
  req->lastError = ENOBUFS;
  return -1;
}

std::int32_t buildRequest(vesk_request* req, char** outFrame, const char* extra) {
  RequestItems items{};
  items.req = req;
  items.extra = extra;
  if (fetchAttributeNames(&items) < 0) return 0;

  std::int64_t blockSize = attributesSize(items);
  req->trace(req, "PROXY_SERVICE_40 ->");
  blockSize += fetchVariables(&items);
  blockSize += otherItemsSize(items);
  // One byte longer than the frame: texts are copied with their end in mind.
  FrameWriter out{allocateFrame(req, blockSize), 0};
  if (!out.buffer) {
    freeVariables(items);
    return 0;
  }

  const auto frameSize = static_cast<std::int32_t>(blockSize + kFrameHead);
  putItemWord(&out, PROXY_SERVICE_40);
  putItemWord(&out, frameSize - kFrameHead);
  putItems(&out, items);
  // Only a host whose values change between the passes could bring this about.
  if (out.position != frameSize)
    req->log(req, "sendAllHeaders end %d should be %d", out.position, frameSize);
  *outFrame = out.buffer;
  return out.position;
}

std::int32_t sendPostData(vesk_request* req, std::int32_t wanted,
                          const VeskConnection* connection) {
  req->trace(req, "  getPostData content-length: %d", wanted);
  // A server may ask for any number; one frame holds this much, and it asks again.
  const std::int32_t most = std::clamp(wanted, 0, kMaxBodyBytes);
  RequestBlock frame{req, req->malloc(req, kFrameHead + most)};
  if (!frame.bytes) return 0;

  const std::int32_t count = readBody(req, frame.bytes + kFrameHead, most);
  req->trace(req, "getPostData returned %d", count);
  putWord(frame.bytes, PROXY_PUT_DATA);
  // The count goes out as it is: -1 tells the server that the browser broke off.
  putWord(frame.bytes + kWordSize, count);
  // The frame goes out all the same: what follows is the server's decision.
  if (count < 0) req->log(req, "sendPostData: error reading from client");
  const std::int32_t size = kFrameHead + std::max(count, 0);
  if (sendBytes(req, frame.bytes, size, connection->socket) < 0) {
    req->log(req, "sendPostData: error sending to proxy");
    return 0;
  }
  return 1;
}

// The CR LF that ends a value: a line that begins with a tab or a blank goes on
// with it. Null when the text breaks off.
static char* endOfValue(char* value) {
  char* end = std::strstr(value, "\r\n");
  while (end && (end[2] == '\t' || end[2] == ' ')) end = std::strstr(end + 2, "\r\n");
  return end;
}

char* nextHeader(char* text, char** outName, char** outValue) {
  char* colon = std::strstr(text, ": ");
  if (!colon) return nullptr;
  // The text is the connector's own copy: cutting it in place costs no allocation.
  *colon = '\0';
  char* value = colon + 2;
  char* end = endOfValue(value);
  if (!end) return nullptr;
  *end = '\0';
  *outName = text;
  *outValue = value;
  return end + 2;
}
