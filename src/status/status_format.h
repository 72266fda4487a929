// The forms of the status page. Each writes a snapshot into a text.
//
//   html        for people: needs no script, loads nothing, asks for itself again
//   json        all of it, for programs
//   prometheus  text format 0.0.4; promtool finds nothing in it
//   csv         a row a server, with the columns of HAProxy's where they mean the same
//
// Pure functions but for the text. Failure: that of the text.
#pragma once

#include "status/status_snapshot.h"
#include "status/text_buffer.h"

void writeHtml(TextBuffer* page, const statusSnapshot& snapshot);
void writeJson(TextBuffer* page, const statusSnapshot& snapshot);
void writePrometheus(TextBuffer* page, const statusSnapshot& snapshot);
void writeCsv(TextBuffer* page, const statusSnapshot& snapshot);
