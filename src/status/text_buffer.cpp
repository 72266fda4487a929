#include "status/text_buffer.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "context/memory.h"
#include "context/text.h"

TextBuffer newText(vesk_request* req) {
  return {.req = req, .bytes = nullptr, .length = 0, .room = 0, .failed = false};
}

void freeText(TextBuffer* text) {
  if (text->bytes) text->req->free(text->req, text->bytes);
  *text = newText(text->req);
}

static bool makeRoom(TextBuffer* text, std::int64_t more) {
  constexpr std::int64_t kFirstRoom = 16384;
  if (text->failed || text->length + more <= text->room) return !text->failed;
  const std::int64_t room = std::max({kFirstRoom, 2 * text->room, text->length + more});
  auto* bytes = static_cast<char*>(newBlock(text->req, room));
  text->failed = !bytes;
  if (!bytes) return false;
  if (text->bytes) {
    std::memcpy(bytes, text->bytes, static_cast<std::size_t>(text->length));
    text->req->free(text->req, text->bytes);
  }
  text->bytes = bytes;
  text->room = room;
  return true;
}

void add(TextBuffer* text, std::string_view words) {
  const auto length = static_cast<std::int64_t>(words.size());
  if (length == 0 || !makeRoom(text, length)) return;
  std::memcpy(text->bytes + text->length, words.data(), words.size());
  text->length += length;
}

void addNumber(TextBuffer* text, std::int64_t number) {
  char digits[24];
  const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  add(text, {digits, static_cast<std::size_t>(end - digits)});
}

void addSeconds(TextBuffer* text, std::int64_t micros) {
  constexpr std::int64_t kMicrosPerSecond = 1000000;
  char digits[48];
  const int length = std::snprintf(digits, sizeof digits, "%lld.%06lld",
                                   static_cast<long long>(micros / kMicrosPerSecond),
                                   static_cast<long long>(micros % kMicrosPerSecond));
  add(text, {digits, static_cast<std::size_t>(length)});
}

// Bytes of the UTF-8 character that a text begins with; 0 where it is none, or a control
// character of the upper half.
static std::size_t characterLength(std::string_view text) {
  const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t first = byteAt(0);
  const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (length == 0 || first > 0xF4 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i)
    if ((byteAt(i) & 0xC0) != 0x80) return 0;
  const std::uint8_t second = byteAt(1);
  const bool wrong = (first == 0xC2 && second < 0xA0) ||  // C1 controls
                     (first == 0xE0 && second < 0xA0) ||  // longer than need be
                     (first == 0xED && second > 0x9F) ||  // halves of pairs
                     (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return wrong ? 0 : length;
}

// Bytes of the character that a text begins with, as long as it can be shown; else 0.
static std::size_t shownLength(std::string_view text) {
  constexpr char kFirstPrintable = ' ';
  constexpr char kDelete = 0x7F;
  const char first = text.front();
  if ((static_cast<std::uint8_t>(first) & 0x80) != 0) return characterLength(text);
  return first < kFirstPrintable || first == kDelete ? 0 : 1;
}

bool isShownWhole(std::string_view foreign) {
  while (!foreign.empty()) {
    const std::size_t length = shownLength(foreign);
    if (length == 0) return false;
    foreign.remove_prefix(length);
  }
  return true;
}

// How one place takes the bytes that would end it: null as they are.
using Escape = const char* (*)(char byte);

static void addForeign(TextBuffer* text, std::string_view foreign, Escape escape) {
  while (!foreign.empty()) {
    const std::size_t length = shownLength(foreign);
    const char* escaped = length == 0 ? "?" : escape(foreign.front());
    add(text, escaped ? std::string_view(escaped) : beginOf(foreign, length));
    foreign.remove_prefix(std::max<std::size_t>(length, 1));
  }
}

void addHtml(TextBuffer* text, std::string_view foreign) {
  addForeign(text, foreign, [](char byte) -> const char* {
    switch (byte) {
      case '<':
        return "&lt;";
      case '>':
        return "&gt;";
      case '&':
        return "&amp;";
      case '"':
        return "&quot;";
      case '\'':
        return "&#39;";
      default:
        return nullptr;
    }
  });
}

static const char* escapeQuoted(char byte) {
  if (byte == '"') return "\\\"";
  return byte == '\\' ? "\\\\" : nullptr;
}

void addJson(TextBuffer* text, std::string_view foreign) {
  add(text, "\"");
  addForeign(text, foreign, escapeQuoted);
  add(text, "\"");
}

// The same two are escaped there.
void addLabel(TextBuffer* text, std::string_view foreign) {
  addJson(text, foreign);
}

void addCell(TextBuffer* text, std::string_view foreign) {
  // A spreadsheet takes what begins so for a formula.
  if (!foreign.empty() && std::strchr("=+-@", foreign.front())) add(text, "'");
  const bool plain = foreign.find_first_of(",\"") == std::string_view::npos;
  if (!plain) add(text, "\"");
  addForeign(text, foreign,
             [](char byte) -> const char* { return byte == '"' ? "\"\"" : nullptr; });
  if (!plain) add(text, "\"");
}
