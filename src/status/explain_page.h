// An explanation of a URL as a page: for people, and as JSON for programs.
//
// Pure functions but for the text. Failure: that of the text.
#pragma once

#include "status/explain.h"
#include "status/text_buffer.h"

// What was asked; texts of the browser, empty where it said nothing.
struct ExplainedUrl {
  const char* url;
  const char* host;
  const char* cookie;
  const char* method;
  const char* path;  // of the status page
};

void writeExplanationHtml(TextBuffer* page, const ExplainedUrl& asked,
                          const Explanation& explained);
void writeExplanationJson(TextBuffer* page, const ExplainedUrl& asked,
                          const Explanation& explained);
// The page with its form and the words instead of an explanation.
void writeExplainForm(TextBuffer* page, const ExplainedUrl& asked, const char* words);
