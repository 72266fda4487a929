// What a server has been asked, and what came of it: counts for the status page.
//
// All of a server's counts lie together, in the process's own memory or in memory that
// all processes of the web server share (counter_board.h). All zeroes are counts of
// nothing.
//
// An attempt is one request on one server: it is counted when it ends, as served or as
// failed. Response times are those of served attempts, from the choice of the server to
// the last byte, so a slow browser shows in them.
//
// Ownership: the board's. Threads: any, in any process; no lock: every field is added to
// and read atomically, relaxed, so a reader sees counts that may be one request apart.
// Failure: none. Units: microseconds.
#pragma once

#include <cstdint>
#include <type_traits>

// What ended a failed attempt; see request_outcome.h for the letters.
constexpr char kErrorLetters[] = "RTXBPCMO";
constexpr std::int32_t kErrorKinds = sizeof kErrorLetters - 1;

// Response times are sorted into ranges of a quarter of an octave: a quantile is at most
// a quarter above the truth. The last range ends at 2^27 us and takes all that is longer.
constexpr std::int32_t kRangesPerOctave = 4;
constexpr std::int32_t kTimeRanges = 25 * kRangesPerOctave + 1;

// The last five minutes, for a line that is drawn: a ring of counts.
constexpr std::int32_t kTrendSeconds = 10;
constexpr std::int32_t kTrendSlots = 30;

struct serverCounters {
  std::int64_t served;
  std::int64_t errors[kErrorKinds];  // in the order of kErrorLetters
  std::int64_t takenOver;            // attempts behind one that had failed elsewhere
  std::int64_t micros;               // of all served attempts
  std::int64_t times[kTimeRanges];   // served attempts by response time
  // The slot's number since the epoch in the upper half, its count in the lower one.
  std::uint64_t trend[kTrendSlots];
  std::uint64_t errorTrend[kTrendSlots];
};
static_assert(std::is_trivial_v<serverCounters> &&
              std::is_standard_layout_v<serverCounters>);

// How an attempt has ended.
struct attemptEnd {
  bool served;
  char cause;  // one of kErrorLetters, where it wasn't
  bool first;  // no other attempt was before it
  std::int64_t micros;
  std::int64_t second;  // the time now, since the epoch
};

// Enters an attempt: four or five additions.
void countAttempt(serverCounters* counters, const attemptEnd& end);

// A copy that can be read plainly.
void readCounters(const serverCounters* from, serverCounters* to);

// The rest takes such a copy.

[[nodiscard]] std::int64_t errorsOf(const serverCounters& counters);

// The response time that `perMille` of the served attempts don't exceed; 0 without any.
[[nodiscard]] std::int64_t timeQuantile(const serverCounters& counters,
                                        std::int32_t perMille);

// Served attempts of at most 2^`exponent` us, for exponents from 2 to 27.
[[nodiscard]] std::int64_t servedWithin(const serverCounters& counters,
                                        std::int32_t exponent);

// The counts of the last five minutes that end with `second`, oldest first; the last one
// is of a slot that still runs.
void readTrend(const std::uint64_t* trend, std::int64_t second,
               std::uint32_t counts[kTrendSlots]);
