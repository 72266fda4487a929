// Options that several commands have, and their limits.
//
// Threads: one. Units: seconds on the command line.
#pragma once

#include "ctl/command.h"
#include "ctl/tool_request.h"

namespace ctl {

constexpr double kDefaultTimeout = 5;
constexpr double kMostSeconds = 86400;

// Takes a number from `least` to kMostSeconds.
[[nodiscard]] CLI::Validator secondsFrom(double least);
constexpr int kMostQuestions = 1000000;

// "--timeout S", whose default is what the variable holds.
void addTimeout(CLI::App& command, double& seconds);

// The limits of a conversation that may take so long, connect included.
[[nodiscard]] Limits limitsOf(double seconds);

}  // namespace ctl
