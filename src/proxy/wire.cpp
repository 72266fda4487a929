#include "proxy/wire.h"

#include <cerrno>
#include <cstring>

#include "context/memory.h"
#include "context/read_ahead.h"
#include "context/request_block.h"
#include "context/text.h"

// The ids do not ascend: the order is that of the protocol.
const VariableName VARIABLE_NAMES[kVariableCount] = {
    {19, "QUERY_STRING"},    {22, "REQUEST_METHOD"},     {29, "SCRIPT_NAME"},
    {28, "PATH_INFO"},       {20, "REMOTE_HOST"},        {21, "REMOTE_ADDR"},
    {24, "SERVER_NAME"},     {25, "SERVER_PORT"},        {26, "SERVER_PROTOCOL"},
    {27, "PATH_TRANSLATED"}, {33, "SERVER_PORT_SECURE"}, {34, "REMOTE_USER"},
    {35, "AUTH_TYPE"},
};

// Byte by byte: neither side's order nor alignment plays a part.
void putWord(char* at, std::int32_t word) {
  const auto bits = static_cast<std::uint32_t>(word);
  at[0] = static_cast<char>(bits >> 24U);
  at[1] = static_cast<char>(bits >> 16U);
  at[2] = static_cast<char>(bits >> 8U);
  at[3] = static_cast<char>(bits);
}

std::int32_t getWord(const char* at) {
  std::uint32_t bits = 0;
  for (std::int32_t i = 0; i < kWordSize; ++i)
    bits = bits << 8U | static_cast<std::uint8_t>(at[i]);
  return static_cast<std::int32_t>(bits);
}

std::int32_t appendWord(char* buffer, std::int32_t position, std::int32_t word) {
  putWord(buffer + position, word);
  return position + kWordSize;
}

// The caller has added up the same lengths in 64 bits and sized the buffer by them.
std::int32_t appendString(char* buffer, std::int32_t position, const char* text) {
  const auto length = static_cast<std::int32_t>(textLength(text));
  position = appendWord(buffer, position, length);
  if (length > 0) std::memcpy(buffer + position, text, static_cast<std::size_t>(length));
  return position + length;
}

// The operation may send less than asked for; a result of 0 would repeat for ever, and
// ends the loop as a failure.
std::int32_t sendBytes(vesk_request* req, const char* buffer, std::int32_t length,
                       std::int32_t sock) {
  std::int32_t sent = 0;
  std::int32_t result = 1;
  while (sent < length && result > 0) {
    result = req->send(req, sock, buffer + sent, length - sent);
    if (result > 0) {
      sent += result;
      req->trace(req, "sent/avail/result %d/%d/%d", sent, length, result);
    }
    if (sent < length) req->trace(req, "sent %d/%d", sent, length);
    if (result < 0)
      req->trace(req, "send failed, sent/avail/result %d/%d/%d", sent, length, result);
  }
  return sent == length ? sent : -1;
}

// Takes an element that is there already, as most are: as readFully, without a call.
static inline bool takeBytes(vesk_request* req, char* buffer, std::int32_t length,
                             std::int32_t sock) {
  // Whose time has an end is asked for it at each element.
  if (req->deadline != 0 || req->endsAtShutdown != 0) return false;
  const char* here = takeAhead(req, sock, length);
  if (!here) return false;
  std::memcpy(buffer, here, static_cast<std::size_t>(length));
  req->lastError = 0;
  req->trace(req, "read/len/total %d/%d/%d", length, length, length);
  return true;
}

// The operation gives all that was asked for, or the end of the stream; the loop is for
// operations that a test, or another transport, puts in its place.
std::int32_t receiveFully(vesk_request* req, char* buffer, std::int32_t length,
                          std::int32_t sock, veskProxy* proxy) {
  std::int32_t total = 0;
  std::int32_t result = 1;
  while (total < length && result > 0) {
    result = req->recv(req, sock, buffer + total, length - total, proxy);
    if (result > 0) total += result;
    req->trace(req, "read/len/total %d/%d/%d", result, length, total);
  }
  if (total == length) return 0;
  // The socket layer takes a close for the end of a stream, which it is. Here an element
  // is missing, and that is a failure like a reset.
  if (result == 0) {
    req->lastError = ECONNRESET;
    req->traceE(req, kTraceState, "readFully: [%d] peer closed connection", sock);
  }
  return -1;
}

std::int32_t readFully(vesk_request* req, char* buffer, std::int32_t length,
                       std::int32_t sock, veskProxy* proxy) {
  if (length > 0 && takeBytes(req, buffer, length, sock)) return 0;
  return receiveFully(req, buffer, length, sock, proxy);
}

std::int32_t readWord(vesk_request* req, std::int32_t sock, veskProxy* proxy,
                      std::int32_t* out) {
  char bytes[kWordSize];
  if (readFully(req, bytes, kWordSize, sock, proxy) < 0) return -1;
  *out = getWord(bytes);
  return 0;
}

// The length of a string or block: 0, or -1. A negative one fails with lastError at 0: it
// was no failure of the line, and the page says "protocol error".
static std::int32_t readLength(std::int32_t sock, vesk_request* req, veskProxy* proxy,
                               std::int32_t* length) {
  if (readWord(req, sock, proxy, length) < 0) return -1;
  return *length < 0 ? -1 : 0;
}

char* readDataInto(std::int32_t sock, vesk_request* req, std::int32_t* outLength,
                   veskProxy* proxy, const TextRoom& room) {
  std::int32_t length = 0;
  if (readLength(sock, req, proxy, &length) < 0) return nullptr;

  const bool fits = length < room.size;
  RequestBlock data{req, fits ? nullptr : newBlock(req, std::int64_t{length} + 1)};
  char* bytes = fits ? room.bytes : data.bytes;
  if (!bytes) {
    req->lastError = ENOBUFS;
    return nullptr;
  }
  if (readFully(req, bytes, length, sock, proxy) < 0) return nullptr;

  // Texts of the protocol have no NUL of their own, and every user takes them as C texts.
  bytes[length] = '\0';
  if (outLength) *outLength = length;
  (void)data.handOn();
  return bytes;
}

char* readData(std::int32_t sock, vesk_request* req, std::int32_t* outLength,
               veskProxy* proxy) {
  return readDataInto(sock, req, outLength, proxy, {nullptr, 0});
}

// In one piece: a length without its bytes would cost the server a second read.
std::int32_t writeString(vesk_request* req, std::int32_t sock, const char* text) {
  const RequestBlock frame{req, newBlock(req, kWordSize + textLength(text))};
  if (!frame.bytes) return -1;
  const std::int32_t length = appendString(frame.bytes, 0, text);
  return sendBytes(req, frame.bytes, length, sock) < 0 ? -1 : 0;
}
