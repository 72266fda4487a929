#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "context/memory.h"
#include "context/request_block.h"
#include "context/request_setup.h"
#include "properties/vesk_property.h"

constexpr char kEndOfText = 0x1A;

// What one line of property text was; `lost` when there is no memory for its pair.
enum class Line { skipped, pair, last, lost };

// A run of bytes in the text.
struct Extent {
  const char* start;
  std::int64_t length;
};

struct Parser {
  vesk_request* req;
  propertyTable* table;
  const char* at;  // the next byte
  Extent key;      // of the line in hand
  Extent value;    // raw: escapes and carriage returns still in it
};

// A comment without a line end is the text's end.
static Line skipComment(Parser* parser) {
  const char* end = std::strchr(parser->at, '\n');
  if (!end) return Line::last;
  parser->at = end + 1;
  return Line::skipped;
}

// Cuts out the value at `at`. Carriage returns belong to the raw value; the byte
// that ends them, whatever it is, is consumed as the line end.
static void scanValue(Parser* parser) {
  const char* start = parser->at;
  const char* end = start + std::strcspn(start, "\r\n");
  while (*end == '\r') ++end;
  parser->value = {.start = start, .length = end - start};
  parser->at = *end == '\0' ? end : end + 1;
}

// Cuts out the pair of a line. Its first byte belongs to the key, even a '='.
static Line scanPair(Parser* parser) {
  const char* start = parser->at;
  const char* end = start + 1 + std::strcspn(start + 1, "=\r\n");
  if (*end == '\0') return Line::last;

  parser->key = {.start = start, .length = end - start};
  parser->at = end + 1;
  if (*end != '=') {
    vesk_request* req = parser->req;
    const std::int64_t shown =
        parser->key.length < INT_MAX ? parser->key.length : INT_MAX;
    req->trace(req, "property %.*s has no value. skipping.", static_cast<int>(shown),
               start);
    return Line::skipped;
  }
  scanValue(parser);
  return Line::pair;
}

// A control Z ends the text, as in files that old editors have written.
static Line scanLine(Parser* parser) {
  switch (*parser->at) {
    case '\0':
    case kEndOfText:
      return Line::last;
    case '#':
      return skipComment(parser);
    case '\r':
    case '\n':
      ++parser->at;
      return Line::skipped;
    default:
      return scanPair(parser);
  }
}

// Keys are taken as they stand, blanks and all: the syntax trims nothing.
static char* copyKey(vesk_request* req, const Extent* key) {
  return copyPermText(req, {key->start, static_cast<std::size_t>(key->length)});
}

// A backslash or carriage return goes, and protects the byte behind it.
static char* copyValue(vesk_request* req, const Extent* value) {
  auto* copy = static_cast<char*>(newPermBlock(req, value->length + 1));
  if (!copy) return nullptr;
  char* out = copy;
  const char* end = value->start + value->length;
  for (const char* in = value->start; in < end; ++in) {
    if (*in == '\\' || *in == '\r') ++in;
    if (in < end) *out++ = *in;
  }
  *out = '\0';
  return copy;
}

// Adds the pair in hand.
static Line addParsedPair(Parser* parser) {
  vesk_request* req = parser->req;
  char* key = copyKey(req, &parser->key);
  if (!key) return Line::lost;
  char* value = copyValue(req, &parser->value);
  if (!value) {
    req->permFree(req, key);
    return Line::lost;
  }
  req->trace(req, "  %.100s = %.200s", key, value);
  // A full table has told of the pair; the rest of the text is read all the same, since
  // further lines may still be worth their trace.
  if (addProperty1(req, parser->table, key, value) < 0) {
    req->permFree(req, key);
    req->permFree(req, value);
  }
  return Line::pair;
}

// Takes one line.
static Line parseLine(Parser* parser) {
  const Line line = scanLine(parser);
  return line == Line::pair ? addParsedPair(parser) : line;
}

propertyTable* parseProperties(vesk_request* req, const char* text) {
  // Not zeroed: what lies behind the pairs is never read, and it is 128 KiB.
  auto* table = static_cast<propertyTable*>(newPermBlock(req, sizeof(propertyTable)));
  if (!table) return nullptr;
  table->count = 0;
  Parser parser = {
      .req = req, .table = table, .at = text, .key = {nullptr, 0}, .value = {nullptr, 0}};
  Line line = Line::skipped;
  while (line == Line::skipped || line == Line::pair) line = parseLine(&parser);
  if (line != Line::lost) return table;
  freeProperties(req, table);
  return nullptr;
}

// Bytes of an open file; 0 when it can't be told; -1 for what holds no text.
static std::int64_t sizeOfFile(std::FILE* file) {
  struct stat status;
  // A folder opens like a file, and fails only at the read.
  if (fstat(fileno(file), &status) == 0 && S_ISDIR(status.st_mode)) return -1;
  if (std::fseek(file, 0, SEEK_END) != 0) return 0;
  const long size = std::ftell(file);
  return size < 0 ? 0 : size;
}

// Reads a file of `size` bytes into the block: whether anything was read.
static bool readWhole(std::FILE* file, char* bytes, std::int64_t size) {
  if (std::fseek(file, 0, SEEK_SET) != 0) return false;
  const std::size_t count = std::fread(bytes, 1, static_cast<std::size_t>(size), file);
  // A file that shrank between the two calls gives fewer bytes than its size.
  bytes[count] = '\0';
  return count > 0;
}

static propertyTable* loadFromFile(vesk_request* req, std::FILE* file, const char* path) {
  const std::int64_t size = sizeOfFile(file);
  if (size == 0) return nullptr;
  if (size < 0 || size >= INT_MAX) {
    req->log(req, "could not read data in %s", path);
    return nullptr;
  }
  const RequestBlock text{req, newBlock(req, size + 1)};
  if (!text.bytes) return nullptr;
  if (!readWhole(file, text.bytes, size)) {
    req->log(req, "could not read data in %s", path);
    return nullptr;
  }
  return parseProperties(req, text.bytes);
}

// The streams of the C library, and not of the request: this reads files of the operator,
// before there is any request.
propertyTable* loadProperties(vesk_request* req, const char* path) {
  req->trace(req, "loadProperties(%s)", path);
  std::FILE* file = std::fopen(path, "re");
  if (!file) {
    char reason[256];
    req->log(req, "could not open %s: %s", path,
             strerror_r(errno, reason, sizeof reason));
    return nullptr;
  }
  propertyTable* table = loadFromFile(req, file, path);
  (void)std::fclose(file);  // it was only read
  return table;
}

propertyTable* loadProperties1(const char* path) {
  // The forms without a record serve callers outside any request: plain heap, no log.
  vesk_request silent;
  init_allocators(&silent);
  return loadProperties(&silent, path);
}

propertyTable* parseProperties1(const char* text) {
  vesk_request silent;
  init_allocators(&silent);
  return parseProperties(&silent, text);
}
