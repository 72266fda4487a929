// Which server a request goes to, and why: a pure function of what is known.
//
// Whoever asks fills a question from the records, under tableMutex, and then needs no
// lock: selectProxy does, to act on the answer, and tools may, to explain one. Nothing
// is written, drawn, logged or waited for here; how a rotation moves on is the affair of
// whoever acts.
//
// Three notions of health meet. `active` says that a server takes part in the mapping's
// list, and decides for the algorithms. `inService` says that it is believed in service,
// and decides for sessions. `failed` counts for this request alone.
//
// A server that an operator drains keeps the sessions that it owns and gets nothing else:
// the asker leaves it out of `active`, and it is no buddy and no only server.
//
// Ownership: texts and arrays of a question are the asker's. Threads: any.
// Failure: a position of -1, with the reason.
#pragma once

#include <cstdint>

// What is known of one server of a list.
struct ServerState {
  std::int64_t weight;
  const char* replicationId;  // null when the server has none
  bool inService;
  bool failed;   // it has failed for this request
  bool drained;  // an operator wants nothing new there; false unless `drains`
};

constexpr std::int64_t kNotDrawn = -1;

struct ChoiceQuestion {
  // The list, by position.
  std::int32_t count;           // 1 at least
  const std::uint32_t* active;  // non-zero: takes part; no drained one does
  const ServerState* servers;   // may be null where readsServers says so
  bool drains;                  // some server of the process is drained
  // The mapping's balance.
  std::uint32_t algorithm;  // a BALANCE_ code; any other rotates
  bool sticky;
  std::int32_t cursor;  // where the last rotation has stopped, or -1
  // RANDOM_WEIGHTED: for each position the sum of the weights up to and with it, and a
  // number below the last of them. Not read before the number is drawn.
  const std::uint64_t* weightSums;
  std::int64_t drawn;  // or kNotDrawn
  // The request.
  const char* sessionId;  // or null
};

enum class ChoiceReason : std::uint8_t {
  onlyServer,  // the list has one entry, which is chosen in any state of service
  sessionOwner,
  sessionBuddy,  // a backup server of the session, whose owner is out of service
  rotation,
  weightedRotation,
  smallestWeight,
  largestWeight,
  weightDrawn,
  untried,
  // Nobody:
  noneInRotation,  // no entry is active
  noneEligible,    // none is active with a weight that the algorithm takes
  sessionLost,     // resolveServerId: the owner and its buddies are out of service
  drawNeeded,      // RANDOM_WEIGHTED has no number yet: ask again with one
  noneUntried,     // all servers in service have failed for this request
};

struct Choice {
  std::int32_t position;  // in the list, or -1
  ChoiceReason reason;
  bool sessionBroken;        // chosen without regard to a session that asked for its own
  std::int32_t absentOwner;  // the session's server, where it is out of service; or -1
};

// Whether an answer depends on more of the servers than their number and `active`.
[[nodiscard]] bool readsServers(const ChoiceQuestion& question);

// The sums that RANDOM_WEIGHTED draws by, into `sums` with room for the whole list: the
// last of them. Only active entries count, each with its weight from 0 up.
[[nodiscard]] std::int64_t sumWeights(const ChoiceQuestion& question,
                                      std::uint64_t* sums);

// The server for an attempt: the only one, the session's, or the algorithm's.
[[nodiscard]] Choice chooseServer(const ChoiceQuestion& question);

// The session's owner if it is in service, else the first of its buddies that is. The
// question has a session.
[[nodiscard]] Choice resolveServerId(const ChoiceQuestion& question);

// The first server of the list that is active, in service and hasn't failed.
[[nodiscard]] Choice chooseUntried(const ChoiceQuestion& question);
