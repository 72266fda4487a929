// What a server tells of itself, gathered by one visit.
//
// Threads: gatherAll asks the servers at the same time, each by a thread of its own; the
// facts are the caller's. Failure: in the facts, in words.
#pragma once

#include <string>
#include <vector>

#include "ctl/server_link.h"

namespace ctl {

struct Visit {
  Limits limits;
  int count = 1;     // questions whose time is taken
  double pause = 0;  // between two of them, seconds
  bool verbose = false;
};

struct ServerFacts {
  std::string name;     // as it was asked for, harmless
  std::string dotted;   // "10.0.0.1:7001"; empty when the name has no address
  std::string failure;  // empty: it has answered every question; harmless text
  double connectMillis = 0;
  std::vector<double> answerMillis;  // of the answers that came
  int asked = 0;                     // how many times, with those that failed

  Properties props;
  Properties mappings;
  Properties cluster;
  std::optional<std::int32_t> sequence;

  [[nodiscard]] bool answers() const {
    return failure.empty();
  }
};

[[nodiscard]] ServerFacts gatherFacts(const std::string& address, const Visit& visit);

// In the order of the addresses.
[[nodiscard]] std::vector<ServerFacts> gatherAll(
    const std::vector<std::string>& addresses, const Visit& visit);

}  // namespace ctl
