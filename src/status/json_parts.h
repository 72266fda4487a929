// Members of a JSON object, as pages write them. Names are the connector's own words.
//
// Failure: that of the text.
#pragma once

#include "status/text_buffer.h"

// The name and its colon.
void jsonField(TextBuffer* page, const char* name);
void jsonNumber(TextBuffer* page, const char* name, std::int64_t value);
// Microseconds as seconds.
void jsonSeconds(TextBuffer* page, const char* name, std::int64_t micros);
void jsonTruth(TextBuffer* page, const char* name, bool value);
// Null without a text.
void jsonText(TextBuffer* page, const char* name, const char* value);
// What stands in front of a member, but of the first, whose index is 0.
void jsonComma(TextBuffer* page, std::int64_t index = 1);
