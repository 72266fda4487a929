// A configuration's lines of the connector, judged while they are read.
//
// The connector reads its options only when it starts, and goes on past what it can't
// use: here the person who wrote the lines still sees what is said of them, with file
// and line.
//
// Threads: one, before the first request; no lock. Files are looked at, none is
// changed. Ownership: texts are the caller's.
#pragma once

#include <sys/types.h>

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "layer/directive.h"
#include "layer/stages.h"

namespace host {

struct Finding {
  bool refuses;       // the line can't be used at all
  std::string where;  // "file:line"
  std::string text;
};

// All lines that name a function, in the order of the configuration, and as whom
// requests will run.
struct CheckedLines {
  std::vector<const Directive*> inits;
  std::vector<std::pair<Stage, const Directive*>> stages;
  uid_t user;
  gid_t group;
  // True: the server runs in another folder than the one that it is started in.
  bool leavesFolder = false;
};

// Judges the lines together. Nothing is said of lines that have nothing to do with the
// connector.
[[nodiscard]] std::vector<Finding> checkLines(const CheckedLines& lines);

// The function of the connector's two that the lines of the stages leave out, where
// they have the other one: half of it does nothing. Null: both, or none.
[[nodiscard]] const char* missingFunction(const CheckedLines& lines);

// A web server's release, as 2.4.48.
using Release = std::array<int, 3>;

// What to say of a web server that is older than it must be; empty: nothing.
[[nodiscard]] std::string judgeRelease(const std::string& server, const Release& running,
                                       const Release& needed);

// Judges one Init line by itself, but for the files that it names. Nothing is said of
// one whose function isn't `veskinit`.
[[nodiscard]] std::vector<Finding> checkOptions(const Directive& init);

}  // namespace host
