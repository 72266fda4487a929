// The frame of a page for people, and the small pieces that pages share.
//
// Pure functions but for the text. Failure: that of the text.
#pragma once

#include <initializer_list>

#include "status/status_snapshot.h"
#include "status/text_buffer.h"

// Up to the heading; the title is the connector's own words. A `refresh` of 0 leaves the
// page as it is.
void beginPage(TextBuffer* page, const char* title, std::int32_t refresh);
void endPage(TextBuffer* page);

void addPart(TextBuffer* page, const char* part);
void addPart(TextBuffer* page, std::int64_t number);
// Words of the connector's own, markup and numbers, one behind the other.
template <typename... Parts>
void put(TextBuffer* page, Parts... parts) {
  (addPart(page, parts), ...);
}

// A head that begins with '#' stands above numbers. Where the window is narrow, the cells
// of a row with more than three of them stand below each other.
void beginTable(TextBuffer* page, std::initializer_list<const char*> heads);
void endTable(TextBuffer* page);
// The begin of a cell: its label stands in front of it where the window is narrow.
void cell(TextBuffer* page, const char* label, const char* classes = "");

// The page's own path in an attribute.
void addPath(TextBuffer* page, const char* path);

// "2026-11-23 18:02:11 UTC".
void addTime(TextBuffer* page, std::int64_t seconds);
// "3h12m".
void addAge(TextBuffer* page, std::int64_t seconds);
// "812 us", "13.4 ms" or "2.50 s".
void addMicros(TextBuffer* page, std::int64_t micros);

// The class of a state's colour.
[[nodiscard]] const char* stateClass(const char* state);
