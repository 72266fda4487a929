// The wall clock.
//
// Code that decides by the time asks the request (its operation `now`), so that a
// test can move the time by hand; what stands here is behind that operation, and
// for times in milliseconds, which are only measured and never decided by.
//
// Threads: any; no lock. Failure: none.
#pragma once

#include <sys/time.h>

#include <cstdint>

struct vesk_request;

void gtod(timeval* now);

// Milliseconds since the epoch.
[[nodiscard]] std::int64_t tvToMillis(const timeval* time);

// The default of the operation `ticks`: milliseconds of a clock that nobody sets. `req`
// is not used.
[[nodiscard]] std::int64_t monotonicMillis(vesk_request* req);

// Microseconds of the same clock, for durations that are only told.
[[nodiscard]] std::int64_t monotonicMicros();

// The default of the operation `now`: seconds since the epoch. `req` is not used.
[[nodiscard]] std::int64_t wallClockSeconds(vesk_request* req);
