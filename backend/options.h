// The command line.
//
// Ownership: the caller's; nothing is kept of the arguments.
// Threads: main's alone, before any other starts.
// Errors: parseOptions prints them. Units: seconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace backend {

struct Mapping {
  std::string pattern;
  std::string target;
};

struct Options {
  std::string listenHost;  // dotted IPv4 address
  int listenPort;          // 0: any free port
  std::string repId;       // empty: made from the port
  std::int32_t weight;
  std::string algorithm;
  bool sticky;
  std::int32_t mapCheck;
  std::int32_t proxyRetryInterval;
  std::vector<Mapping> mappings;
  std::string clusterFile;  // empty: none
  std::optional<std::uint32_t> loadValue;
  std::vector<std::string> buddies;
};

// What main does next: go on, or leave with this status.
struct ParseResult {
  bool run;
  int exitStatus;  // 0 after --help and --version, 2 for a bad command line
};

// Reads the command line into `options`. Prints help, version or what is wrong.
[[nodiscard]] ParseResult parseOptions(int argc, const char* const* argv,
                                       Options& options);

}  // namespace backend
