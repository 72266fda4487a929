#include "ctl/latencies.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace ctl {

double Latencies::percentile(double percent) const {
  if (times.empty()) return 0;
  std::vector<double> sorted = times;
  std::sort(sorted.begin(), sorted.end());
  constexpr double kWhole = 100;
  const auto rank = static_cast<std::size_t>(
      std::ceil(percent / kWhole * static_cast<double>(sorted.size())));
  return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

double Latencies::mean() const {
  if (times.empty()) return 0;
  return std::accumulate(times.begin(), times.end(), 0.0) /
         static_cast<double>(times.size());
}

}  // namespace ctl
