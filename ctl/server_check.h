// Whether the servers of a cluster agree, and can be used as they describe themselves.
//
// Pure functions on what was asked before. Threads: any. Failure: none.
#pragma once

#include <string>
#include <vector>

#include "ctl/server_facts.h"

namespace ctl {

enum class Severity { warning, error };

struct Remark {
  Severity severity;
  std::string where;  // "file:line", a server, or a mapping; may be empty
  std::string text;   // harmless
};

// Remarks on servers by themselves and on what they say of each other. The first of them
// is whose list of servers counts.
[[nodiscard]] std::vector<Remark> judgeServers(const std::vector<ServerFacts>& servers);

// The addresses in a server's list of its cluster, in its order, each once.
[[nodiscard]] std::vector<std::string> listOf(const ServerFacts& server);

}  // namespace ctl
