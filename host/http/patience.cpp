#include "http/patience.h"

#include <chrono>

namespace host {

constexpr std::int64_t kMilliseconds = 1000;

Patience patienceOf(std::int64_t seconds, std::int64_t leastRate) {
  return {seconds * kMilliseconds, leastRate};
}

bool isOver(const Patience& patience, std::int64_t moved) {
  if (patience.leastRate == 0 || patience.waited <= patience.limit) return false;
  return patience.waited > patience.limit + moved * kMilliseconds / patience.leastRate;
}

std::int64_t steadyMillis() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace host
