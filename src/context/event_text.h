// The text of an event line: built piece by piece, and clean whatever peers sent.
//
// What a browser or a server has said goes in by addPeerText and addItem alone. They
// let no byte through that could end a line, steer a terminal or, by a blank, pass for
// the line's own words.
//
// Pure functions on a record that is the caller's. Threads: any; no lock. Failure: none;
// a text that is full takes nothing more, and counts the items that it has left out.
// Units: bytes, with the NUL where it says size.
#pragma once

#include <cstdint>
#include <type_traits>

// A log line of the connector takes 1020; this many are kept by the hundred.
constexpr std::int32_t kEventTextSize = 400;
// Most that is shown of one text of a peer: a longer one would push out all others.
constexpr std::int32_t kPeerTextSize = 128;

struct EventText {
  char text[kEventTextSize];
  std::int32_t length;
  std::int32_t leftOut;  // items that found no room
};
static_assert(std::is_trivial_v<EventText> && std::is_standard_layout_v<EventText>);

void clearText(EventText* line);

// Adds words of the connector's own.
[[gnu::format(printf, 2, 3)]] void addText(EventText* line, const char* format, ...);
// Adds a peer's text, or "-" for null and for an empty one.
void addPeerText(EventText* line, const char* text);
// Adds the path of a URI: what stands behind the first ';', '?' or '#' may be a secret.
void addPath(EventText* line, const char* uri);
// Adds a blank, the sign and a peer's text, or counts it.
void addItem(EventText* line, char sign, const char* text);
// Adds how many items were left out, if any. Room for that is always kept.
void endItems(EventText* line);
// Adds "41s", "3m20s", "3h12m" or "2d4h".
void addDuration(EventText* line, std::int64_t seconds);
// Adds "1 request" or "31 requests", by the word for one.
void addCount(EventText* line, std::int64_t count, const char* word);

// What went wrong, in a word or two, for a value of lastError; null for one that has no
// word, which a line shows as its number.
[[nodiscard]] const char* errorWord(std::int32_t error);
void addError(EventText* line, std::int32_t error);
