#include "status/json_parts.h"

void jsonField(TextBuffer* page, const char* name) {
  add(page, "\"");
  add(page, name);
  add(page, "\":");
}

void jsonNumber(TextBuffer* page, const char* name, std::int64_t value) {
  jsonField(page, name);
  addNumber(page, value);
}

void jsonSeconds(TextBuffer* page, const char* name, std::int64_t micros) {
  jsonField(page, name);
  addSeconds(page, micros);
}

void jsonTruth(TextBuffer* page, const char* name, bool value) {
  jsonField(page, name);
  add(page, value ? "true" : "false");
}

void jsonText(TextBuffer* page, const char* name, const char* value) {
  jsonField(page, name);
  if (value)
    addJson(page, value);
  else
    add(page, "null");
}

void jsonComma(TextBuffer* page, std::int64_t index) {
  if (index > 0) add(page, ",");
}
