// A text that grows, and the ways in which a page takes words of others into it.
//
// What servers and browsers have sent, and what stands in a configuration, goes in by
// addHtml, addJson, addLabel and addCell alone: in each of them no byte ends the place
// that it stands in. Control characters become '?', bytes from 0x80 on go through as they
// are where the text is UTF-8, and else become '?'.
//
// Ownership: the bytes are memory of the request; freeText gives them back. Threads: the
// request's own. Failure: without memory the text takes nothing more and `failed` is set.
// Units: bytes.
#pragma once

#include <string_view>

#include "context/vesk_request.h"

struct TextBuffer {
  vesk_request* req;
  char* bytes;  // null: empty
  std::int64_t length;
  std::int64_t room;
  bool failed;
};

[[nodiscard]] TextBuffer newText(vesk_request* req);
void freeText(TextBuffer* text);

void add(TextBuffer* text, std::string_view words);
void addNumber(TextBuffer* text, std::int64_t number);
// Microseconds as seconds with six digits behind the point.
void addSeconds(TextBuffer* text, std::int64_t micros);

// Whether a text of others would stand there with all its characters: two that differ
// in the others alone look the same.
[[nodiscard]] bool isShownWhole(std::string_view foreign);

void addHtml(TextBuffer* text, std::string_view foreign);   // content or attribute
void addJson(TextBuffer* text, std::string_view foreign);   // with the quotes around it
void addLabel(TextBuffer* text, std::string_view foreign);  // the same, of a metric
void addCell(TextBuffer* text, std::string_view foreign);   // of a CSV row, if need be
                                                            // in quotes
