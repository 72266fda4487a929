#include "context/clock.h"

#include <ctime>

void gtod(timeval* now) {
  (void)gettimeofday(now, nullptr);
}

std::int64_t tvToMillis(const timeval* time) {
  return std::int64_t{time->tv_sec} * 1000 + std::int64_t{time->tv_usec} / 1000;
}

// time is a read of the vDSO's page, with no system call: a request asks several times.
std::int64_t wallClockSeconds(vesk_request* /*req*/) {
  return std::time(nullptr);
}

std::int64_t monotonicMicros() {
  timespec time;
  (void)clock_gettime(CLOCK_MONOTONIC, &time);  // this clock is always there
  return std::int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
}

std::int64_t monotonicMillis(vesk_request* /*req*/) {
  return monotonicMicros() / 1000;
}
