#include "context/spelling.h"

#include <cctype>
#include <cstring>

#include "context/memory.h"

using CaseFunction = int (*)(int);

// Searching on from the byte just written is safe: `to` is never `from`.
static std::int32_t replaceAll(char* text, char from, char to) {
  if (!text) return 0;
  std::int32_t replaced = 0;
  for (char* at = std::strchr(text, from); at; at = std::strchr(at, from)) {
    *at = to;
    replaced = 1;
  }
  return replaced;
}

std::int32_t fromDashesToUnderscores(vesk_request* /*req*/, char* text) {
  return replaceAll(text, '-', '_');
}

std::int32_t fromUnderscoresToDashes(vesk_request* /*req*/, char* text) {
  return replaceAll(text, '_', '-');
}

// The <cctype> functions take bytes as unsigned values.
static char convertByte(char byte, CaseFunction convert) {
  return static_cast<char>(convert(static_cast<unsigned char>(byte)));
}

// `out` may be `in`: each byte is read before its place is written, and none moves.
static void withDashes(const char* in, char* out, CaseFunction convert) {
  for (; *in; ++in) *out++ = *in == '_' ? '-' : convertByte(*in, convert);
  *out = '\0';
}

static void withUnderscores(const char* in, char* out, CaseFunction convert) {
  for (; *in; ++in) *out++ = *in == '-' ? '_' : convertByte(*in, convert);
  *out = '\0';
}

void toUpperCaseWithDashes(vesk_request* /*req*/, const char* in, char* out) {
  withDashes(in, out, std::toupper);
}

void toUpperCaseWithUnderscores(vesk_request* /*req*/, const char* in, char* out) {
  withUnderscores(in, out, std::toupper);
}

void toLowerCaseWithDashes(vesk_request* /*req*/, const char* in, char* out) {
  withDashes(in, out, std::tolower);
}

void toLowerCaseWithUnderscores(vesk_request* /*req*/, const char* in, char* out) {
  withUnderscores(in, out, std::tolower);
}

// By hand, for this is asked many times a request, and of header names alone.
static char plainByte(char byte) {
  if (byte == '_') return '-';
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

bool isSpellingOf(const char* name, const char* other) {
  for (; *name && plainByte(*name) == plainByte(*other); ++name) ++other;
  return *name == *other;
}

// Bytes that `text` takes with each '%' written as three; the NUL not counted.
// Counted first, so that one allocation is enough; in 64 bits, since it may triple.
static std::int64_t encodedLength(const char* text) {
  std::int64_t length = 0;
  for (; *text; ++text) length += *text == '%' ? 3 : 1;
  return length;
}

static void encodeInto(char* out, const char* in) {
  for (; *in; ++in) {
    *out++ = *in;
    if (*in != '%') continue;
    *out++ = '2';
    *out++ = '5';
  }
  *out = '\0';
}

// Most URIs hold no percent sign: those cost no allocation and keep their text.
char* EncodePercentage(vesk_request* req) {
  if (!req->uri || !std::strchr(req->uri, '%')) return nullptr;

  char* text = static_cast<char*>(newBlock(req, encodedLength(req->uri) + 1));
  if (!text) return nullptr;

  encodeInto(text, req->uri);
  // The old text is the host's own and stays with it.
  req->uri = text;
  return text;
}
