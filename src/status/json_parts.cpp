#include "status/json_parts.h"

// What stands in front of a value: a comma, unless it is the first, and its name.
static void beginValue(TextBuffer* page, const char* name) {
  const char last = page->length > 0 ? page->bytes[page->length - 1] : '{';
  if (last != '{' && last != '[') add(page, ",");
  if (!name) return;
  add(page, "\"");
  add(page, name);
  add(page, "\":");
}

void jsonOpen(TextBuffer* page, const char* name, char bracket) {
  beginValue(page, name);
  add(page, {&bracket, 1});
}

void jsonClose(TextBuffer* page, char bracket) {
  add(page, {&bracket, 1});
}

void jsonNumber(TextBuffer* page, const char* name, std::int64_t value) {
  beginValue(page, name);
  addNumber(page, value);
}

void jsonSeconds(TextBuffer* page, const char* name, std::int64_t micros) {
  beginValue(page, name);
  addSeconds(page, micros);
}

void jsonTruth(TextBuffer* page, const char* name, bool value) {
  beginValue(page, name);
  add(page, value ? "true" : "false");
}

void jsonText(TextBuffer* page, const char* name, const char* value) {
  beginValue(page, name);
  if (value)
    addJson(page, value);
  else
    add(page, "null");
}
