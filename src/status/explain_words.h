// Words for what an explanation says: a short one for programs, a sentence for people.
//
// Pure functions on constant texts. Threads: any. Failure: none, each value has its
// words.
#pragma once

#include "status/explain.h"

struct ExplainWords {
  const char* word;      // letters and hyphens; never changes its meaning
  const char* sentence;  // the rest of a sentence, without a full stop
};

// What became of a mapping: "the mapping ...".
[[nodiscard]] ExplainWords wordsOf(PatternMatch match);
// Why a server: "the server ..."; or why none, as a sentence of its own.
[[nodiscard]] ExplainWords wordsOf(ChoiceReason reason);
// What comes behind the last attempt.
[[nodiscard]] ExplainWords wordsOf(AttemptsEnd end);
