#include "context/guard_names.h"

#include <algorithm>

const GuardRow kGuards[kGuardCount] = {
    {"latebytes", "looks at an idle connection before a request is sent on it"},
    {"identity", "takes the user and the other variables from the web server alone"},
    {"attempt", "takes back what a failed attempt said, and answers 503 when all failed"},
    {"partial", "asks no other server once a response has begun"},
    {"replay", "sends no request twice that might be carried out twice"},
    {"comeback", "has a failed server back after its pause, by an answered question"},
    {"blame", "judges a server by its own socket alone"},
    {"stall", "asks servers about themselves on a thread of its own"},
    {"privacy", "keeps session ids, cookies and passwords out of the log"},
    {"idle", "closes connections that have lain idle, and finds peers that vanished"},
    {"deadline", "ends a wait when its time is over, whatever interrupts it"},
};

// The library's searches in a view would bring in its exceptions; these two are all that
// is needed.

static std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

// Cuts the next word off a list.
static std::string_view takeWord(std::string_view* list) {
  const auto* comma = std::find(list->begin(), list->end(), ',');
  const auto length = static_cast<std::size_t>(comma - list->begin());
  const std::string_view word(list->data(), length);
  list->remove_prefix(std::min(length + 1, list->size()));
  return trimmed(word);
}

// The bits that a word stands for; 0 for "none" and for what is no name, which `known`
// tells apart.
static std::uint32_t bitsOf(std::string_view word, bool* known) {
  *known = true;
  if (word == "all") return kAllGuards;
  if (word == "none") return kNoGuards;
  for (std::uint32_t i = 0; i < kGuardCount; ++i)
    if (word == kGuards[i].name) return 1U << i;
  *known = false;
  return kNoGuards;
}

// From left to right: what stands later wins, so that "-name" takes back what "all" or a
// name before it has given.
GuardChoice readGuards(std::string_view value) {
  GuardChoice choice{kNoGuards, {}};
  while (!value.empty()) {
    const std::string_view word = takeWord(&value);
    const bool off = word.starts_with('-');
    bool known = true;
    const std::uint32_t bits = bitsOf(off ? word.substr(1) : word, &known);
    if (off) choice.mask &= ~bits;
    if (!off) choice.mask |= bits;
    if (!known && choice.unknown.empty() && !word.empty()) choice.unknown = word;
  }
  return choice;
}
