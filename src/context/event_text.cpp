#include "context/event_text.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "context/vesk_error.h"

// Kept free by items: for " and 8192 more", for the count of lines that were held back,
// and for a head that is put before them.
constexpr std::int32_t kItemReserve = 80;
constexpr char kCutMark[] = "...";
constexpr std::size_t kCutLength = sizeof kCutMark - 1;

void clearText(EventText* line) {
  line->text[0] = '\0';
  line->length = 0;
  line->leftOut = 0;
}

// Cut where it is full: half a line tells more than none, and the length stays that of
// what stands there.
void addText(EventText* line, const char* format, ...) {
  const std::int32_t room = kEventTextSize - line->length;
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(line->text + line->length,
                                    static_cast<std::size_t>(room), format, args);
  va_end(args);
  line->length += std::clamp(length, 0, room - 1);
}

// Letters beyond ASCII go as well: in another encoding their bytes steer terminals.
static char cleaned(char byte) {
  return byte > ' ' && byte < '\x7f' ? byte : '?';
}

// Copies `length` bytes, cut to what a line shows of one peer's text: the copy's length.
static std::int32_t copyCleaned(char (&shown)[kPeerTextSize], const char* text,
                                std::size_t length) {
  const std::size_t most = std::min<std::size_t>(length, kPeerTextSize - 1);
  std::transform(text, text + most, shown, cleaned);
  shown[most] = '\0';
  if (length > most) std::copy_n(kCutMark, kCutLength, shown + most - kCutLength);
  return static_cast<std::int32_t>(most);
}

// An empty text would move the next word into its place.
static void addCleaned(EventText* line, const char* text, std::size_t length) {
  char shown[kPeerTextSize];
  addText(line, "%s", copyCleaned(shown, text, length) > 0 ? shown : "-");
}

void addPeerText(EventText* line, const char* text) {
  addCleaned(line, text ? text : "", text ? std::strlen(text) : 0);
}

// By the first separator of any kind: behind it stand what forms and sessions carry. An
// encoded one stays, since only the server knows what that means.
void addPath(EventText* line, const char* uri) {
  addCleaned(line, uri ? uri : "", uri ? std::strcspn(uri, ";?#") : 0);
}

void addItem(EventText* line, char sign, const char* text) {
  char shown[kPeerTextSize];
  const std::int32_t size = copyCleaned(shown, text, std::strlen(text)) + 2;
  // From the first that doesn't fit on, all are counted: what stands in the line is then
  // the begin of the list and no choice of its shorter names.
  if (line->leftOut > 0 || line->length + size + kItemReserve >= kEventTextSize) {
    ++line->leftOut;
    return;
  }
  addText(line, " %c%s", sign, shown);
}

void endItems(EventText* line) {
  if (line->leftOut > 0) addText(line, " and %d more", line->leftOut);
  line->leftOut = 0;
}

struct Unit {
  std::int64_t seconds;
  const char* name;
};
constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "m"}, {1, "s"}};

// The two largest units that it has: a reader needs no seconds behind hours.
void addDuration(EventText* line, std::int64_t seconds) {
  // A clock that was set back gives less than nothing.
  seconds = std::max(seconds, std::int64_t{0});
  const Unit* large = std::begin(kUnits);
  while (large->seconds > seconds && large->seconds > 1) ++large;
  addText(line, "%lld%s", static_cast<long long>(seconds / large->seconds), large->name);
  if (large->seconds == 1) return;
  const Unit* small = large + 1;
  addText(line, "%lld%s",
          static_cast<long long>(seconds % large->seconds / small->seconds), small->name);
}

void addCount(EventText* line, std::int64_t count, const char* word) {
  addText(line, "%lld %s%s", static_cast<long long>(count), word, count == 1 ? "" : "s");
}

// Kernels and networks tell the same thing by several numbers; an operator does the same
// about each of them, so they share a word.
const char* errorWord(std::int32_t error) {
  switch (error) {
    case ECONNREFUSED:
      return "refused";
    case EHOSTUNREACH:
    case EHOSTDOWN:
    case ENETUNREACH:
      return "unreachable";
    case ETIMEDOUT:
      return "timed out";
    case ECONNRESET:
    case EPIPE:
    case ESHUTDOWN:
      return "reset";
    case ENOBUFS:
      return "out of memory";
    case EVESK_BUSY:
      return "busy";
    case EVESK_CLIENT_DOWN:
      return "browser gone";
    case EVESK_PROTOCOL:
    case 0:  // a word that is no command leaves no error
      return "protocol broken";
    default:
      return nullptr;
  }
}

void addError(EventText* line, std::int32_t error) {
  const char* word = errorWord(error);
  if (word) addText(line, "%s", word);
  if (!word) addText(line, "error %d", error);
}
