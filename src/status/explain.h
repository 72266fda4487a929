// Why a request goes where it goes: its road, walked on the table as it is, without a
// request being sent. For a command line and for pages.
//
// The functions that serve requests decide here too, and nothing changes by it: no cursor
// moves, nothing is drawn, counted, refreshed or asked of a server. A server that looks
// alive may turn out not to be.
//
// To show it, from top to bottom: `mappings` as they were tried, each with the word of
// its `match` (explain_words.h), of which only the last may be `matched`; with `winner`
// at -1 the request stays with the web server, and nothing else is filled. Then the
// session, with its owner and buddies marked among `servers`; `choice` with algorithm and
// weights; at last `attempts`, the servers in the order in which they would be tried if
// each refused the connection, and why there are no more of them.
//
// Ownership: the explanation is one block of the request; patterns point into the table,
// which outlives it. Texts of peers are as they came: escape them.
// Threads: any; tableMutex is taken, for no longer than a filter takes it.
// Failure: null without memory. Units: times are seconds since the epoch.
#pragma once

#include "context/privacy.h"
#include "maptable/server_choice.h"
#include "maptable/vesk_maptable_impl.h"
#include "maptable/vesk_session.h"
#include "patterns/pattern_match.h"

struct ExplainedMapping {
  const char* pattern;  // as the table holds it: "/shop*" for a server's "/shop/*"
  PatternMatch match;
};

struct ExplainedServer {
  char name[kProxyNameSize];
  char replicationId[kReplicationIdLength + 1];  // what counts of it; empty: none
  std::int64_t weight;
  std::uint64_t share;     // RANDOM_WEIGHTED: that many of totalWeight draws fall to it
  std::int64_t retryTime;  // 0: not marked unreachable
  bool active;             // takes part in the mapping's list
  bool inService;          // believed in service
  bool drained;            // by an operator: it has its own sessions alone
  bool ownsSession;
  std::int32_t buddyRank;  // among the session's buddies, from 1; 0: none of them
};

struct ExplainedAttempt {
  std::int32_t server;  // position in `servers`
  ChoiceReason reason;
};

// Why there is no further attempt.
enum class AttemptsEnd : std::uint8_t {
  noMapping,     // the request isn't the connector's
  noCluster,     // a failure is the browser's: nobody else is tried
  nobodyLeft,    // 503
  drawn,         // the next one is drawn by weight
  nobodyActive,  // each server is pinged first, in order of the list; or, without one
                 // that answers, 503
  leftToThread,  // nobody is active: 503 while the connector's thread looks for one
};

struct Explanation {
  std::int32_t mappingCount;  // that the table has
  std::int32_t lookedAt;      // of them, in `mappings`
  ExplainedMapping* mappings;
  std::int32_t winner;  // index in `mappings` and in the table, or -1

  bool inCluster;
  bool hasSession;
  char session[kShownSessionSize];  // shortened
  std::int32_t anyBuddyRank;        // of the first buddy that stands for any server; or 0
  // False: a server that may have read the request ends the attempts, with the guard
  // `replay`.
  bool repeatable;

  std::uint32_t algorithm;  // a BALANCE_ code
  bool sticky;
  std::uint64_t totalWeight;  // RANDOM_WEIGHTED only
  Choice choice;              // of the first attempt
  std::int32_t serverCount;
  ExplainedServer servers[kMaxProxies];  // of the mapping, in order of its list
  std::int32_t attemptCount;
  ExplainedAttempt attempts[kMaxProxies];  // the first is the server that would serve
  AttemptsEnd end;
};
static_assert(std::is_trivial_v<Explanation> && std::is_standard_layout_v<Explanation>);

// What the table would do with a request: of its record count `uri`, `path`, `method` and
// the headers "HOST" and "cookie". A table that was never filled has no mappings. The
// caller gives the result back with `free` of the request.
[[nodiscard]] Explanation* explainRequest(mappingsTable* table, vesk_request* req);
