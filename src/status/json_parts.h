// A JSON text, value by value; commas come by themselves. A value has a name in an object
// and none, null, in an array. Names are the connector's own words.
//
// Failure: that of the text.
#pragma once

#include "status/text_buffer.h"

// '{' or '[', and what ends it.
void jsonOpen(TextBuffer* page, const char* name, char bracket);
void jsonClose(TextBuffer* page, char bracket);

void jsonNumber(TextBuffer* page, const char* name, std::int64_t value);
// Microseconds as seconds.
void jsonSeconds(TextBuffer* page, const char* name, std::int64_t micros);
void jsonTruth(TextBuffer* page, const char* name, bool value);
// Null without a text.
void jsonText(TextBuffer* page, const char* name, const char* value);
