#include "proxy/server_counters.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>

constexpr std::int32_t kFirstExponent = 2;  // shorter times are counted as 4 us
constexpr std::int32_t kHalf = 32;          // bits

// Range `i` holds the times up to and with its bound, so that a bound that is a power of
// two counts below itself, as histograms have it.
static std::int32_t rangeOf(std::int64_t micros) {
  const auto above = static_cast<std::uint64_t>(std::max<std::int64_t>(micros, 5)) - 1;
  const auto exponent = static_cast<std::int32_t>(std::bit_width(above)) - 1;
  const auto quarter =
      static_cast<std::int32_t>(above >> (exponent - kFirstExponent)) & 3;
  const std::int32_t range =
      (exponent - kFirstExponent) * kRangesPerOctave + quarter + (micros > 4 ? 1 : 0);
  return std::min(range, kTimeRanges - 1);
}

// The longest time of a range.
static std::int64_t boundOf(std::int32_t range) {
  const std::int32_t exponent = range / kRangesPerOctave + kFirstExponent;
  const std::int64_t quarter = std::int64_t{1} << (exponent - kFirstExponent);
  return (std::int64_t{1} << exponent) + quarter * (range % kRangesPerOctave);
}

static void add(std::int64_t* count, std::int64_t more) {
  std::atomic_ref(*count).fetch_add(more, std::memory_order_relaxed);
}

// Whoever comes first in a slot's time begins it anew; one that is slow over that may
// lose a count, which nobody sees in a line of thirty points.
static void addToTrend(std::uint64_t* trend, std::int64_t second) {
  const auto number = static_cast<std::uint64_t>(second) / kTrendSeconds;
  const std::atomic_ref slot(trend[number % kTrendSlots]);
  std::uint64_t seen = slot.load(std::memory_order_relaxed);
  if (seen >> kHalf == (number & 0xFFFFFFFF) ||
      !slot.compare_exchange_strong(seen, number << kHalf | 1, std::memory_order_relaxed))
    slot.fetch_add(1, std::memory_order_relaxed);
}

static void countError(serverCounters* counters, const attemptEnd& end) {
  const char* letter = std::strchr(kErrorLetters, end.cause);
  const std::int64_t kind =
      letter && *letter != '\0' ? letter - kErrorLetters : kErrorKinds - 1;
  add(&counters->errors[kind], 1);
  addToTrend(counters->errorTrend, end.second);
}

void countAttempt(serverCounters* counters, const attemptEnd& end) {
  if (!end.first) add(&counters->takenOver, 1);
  addToTrend(counters->trend, end.second);
  if (!end.served) return countError(counters, end);
  add(&counters->served, 1);
  add(&counters->micros, end.micros);
  add(&counters->times[rangeOf(end.micros)], 1);
}

void readCounters(const serverCounters* from, serverCounters* to) {
  // All fields are of eight bytes, one behind the other.
  static_assert(sizeof(serverCounters) % sizeof(std::uint64_t) == 0);
  const auto* source = reinterpret_cast<const std::uint64_t*>(from);
  auto* target = reinterpret_cast<std::uint64_t*>(to);
  for (std::size_t i = 0; i < sizeof *from / sizeof *source; ++i)
    target[i] = std::atomic_ref(const_cast<std::uint64_t&>(source[i]))
                    .load(std::memory_order_relaxed);
}

std::int64_t errorsOf(const serverCounters& counters) {
  std::int64_t sum = 0;
  for (const std::int64_t count : counters.errors) sum += count;
  return sum;
}

// Of the counts by range, not of `served`: the two may be a request apart.
static std::int64_t countedTimes(const serverCounters& counters) {
  std::int64_t sum = 0;
  for (const std::int64_t count : counters.times) sum += count;
  return sum;
}

std::int64_t timeQuantile(const serverCounters& counters, std::int32_t perMille) {
  constexpr std::int64_t kWhole = 1000;
  const std::int64_t all = countedTimes(counters);
  if (all == 0) return 0;
  const std::int64_t wanted =
      std::max<std::int64_t>(1, (all * perMille + kWhole - 1) / kWhole);
  std::int64_t sum = 0;
  for (std::int32_t i = 0; i < kTimeRanges; ++i) {
    sum += counters.times[i];
    if (sum >= wanted) return boundOf(i);
  }
  return boundOf(kTimeRanges - 1);
}

std::int64_t servedWithin(const serverCounters& counters, std::int32_t exponent) {
  const std::int32_t last = (exponent - kFirstExponent) * kRangesPerOctave;
  std::int64_t sum = 0;
  for (std::int32_t i = 0; i <= last && i < kTimeRanges; ++i) sum += counters.times[i];
  return sum;
}

void readTrend(const std::uint64_t* trend, std::int64_t second,
               std::uint32_t counts[kTrendSlots]) {
  const auto newest = static_cast<std::uint64_t>(second) / kTrendSeconds;
  for (std::int32_t i = 0; i < kTrendSlots; ++i) {
    const std::uint64_t number =
        newest - (kTrendSlots - 1) + static_cast<std::uint64_t>(i);
    const std::uint64_t slot = trend[number % kTrendSlots];
    counts[i] =
        slot >> kHalf == (number & 0xFFFFFFFF) ? static_cast<std::uint32_t>(slot) : 0;
  }
}
