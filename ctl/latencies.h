// Times of many tries, and what is told of them.
//
// Threads: one. Failure: none; without times all is 0. Units: milliseconds.
#pragma once

#include <cstddef>
#include <vector>

namespace ctl {

class Latencies {
 public:
  void add(double millis) {
    times.push_back(millis);
  }
  [[nodiscard]] std::size_t count() const {
    return times.size();
  }
  // The time that so many percent of the tries didn't exceed: the nearest rank.
  // 0 gives the shortest.
  [[nodiscard]] double percentile(double percent) const;
  [[nodiscard]] double mean() const;

 private:
  std::vector<double> times;
};

}  // namespace ctl
