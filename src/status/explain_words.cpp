#include "status/explain_words.h"

#include <iterator>

// In the order of their enumerations; the sizes are checked below.

constexpr ExplainWords kMatchWords[] = {
    {"host", "is for another host"},
    {"prefix", "begins in another way"},
    {"boundary", "has its prefix end within a word of the URI"},
    {"tail", "ends in another way"},
    {"suffix-ignored", "is left to the web server by ignoresuffixmap"},
    {"path-parameters", "has its ending in path parameters only"},
    {"matched", "takes the request"},
};
static_assert(std::size(kMatchWords) ==
              static_cast<std::size_t>(PatternMatch::matched) + 1);

constexpr ExplainWords kReasonWords[] = {
    {"only-server", "is the only one of the mapping, and tried in any state"},
    {"session-owner", "owns the session"},
    {"session-buddy", "is a buddy of the session, whose owner is out of service"},
    {"rotation", "is the next in turn"},
    {"weighted-rotation", "is in turn, for as many requests as its weight"},
    {"smallest-weight", "has the smallest weight"},
    {"largest-weight", "has the largest weight"},
    {"weight-drawn", "is the only one with a weight to draw"},
    {"untried", "is the first that was not tried"},
    {"none-in-rotation", "none takes part in the mapping"},
    {"none-eligible", "none has a weight that the algorithm takes"},
    {"session-lost", "owner and buddies of the session are out of service"},
    {"draw", "is drawn by weight for each request"},
    {"none-untried", "all were tried"},
};
static_assert(std::size(kReasonWords) ==
              static_cast<std::size_t>(ChoiceReason::noneUntried) + 1);

constexpr ExplainWords kEndWords[] = {
    {"no-mapping", "the web server serves it"},
    {"no-cluster", "no other server is tried: the servers have named no cluster"},
    {"nobody-left", "then 503, since no server is left"},
    {"drawn", "the next one is drawn by weight"},
    {"nobody-active",
     "no server is active: each is pinged in order of the list, and the first that "
     "answers serves; else 503"},
    {"left-to-thread",
     "no server is active: 503, while the connector's thread looks for one"},
};
static_assert(std::size(kEndWords) ==
              static_cast<std::size_t>(AttemptsEnd::leftToThread) + 1);

ExplainWords wordsOf(PatternMatch match) {
  return kMatchWords[static_cast<std::size_t>(match)];
}

ExplainWords wordsOf(ChoiceReason reason) {
  return kReasonWords[static_cast<std::size_t>(reason)];
}

ExplainWords wordsOf(AttemptsEnd end) {
  return kEndWords[static_cast<std::size_t>(end)];
}
