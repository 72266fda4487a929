// The command line of vesk-ctl: the one place that knows all commands.
//
// Threads: one. Failure: kExitUsage with a message on standard error.
#pragma once

namespace ctl {

// Reads the command line and runs its command: the exit status.
[[nodiscard]] int runCommandLine(int argc, const char* const* argv);

}  // namespace ctl
