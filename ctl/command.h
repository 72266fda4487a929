// What the commands of vesk-ctl have in common, and how one joins.
//
// A command is a function `add...` in a file of its own, declared here and called by
// command_line.cpp. It describes its arguments by a subcommand of the app and gives that
// a callback, which runs the command and leaves the exit status:
//
//   void addPing(CLI::App& app, Invocation& invocation) {
//     auto options = std::make_shared<PingOptions>();
//     CLI::App* command = app.add_subcommand("ping", "...");
//     command->add_option("ADDRESS", options->addresses)->required();
//     command->callback([options, &invocation] {
//       invocation.exitStatus = runPing(*options, invocation);
//     });
//   }
//
// Results go to standard output, complaints to standard error.
// Threads: one. Failure: the exit status; an exception ends the program with
// kExitFailure and its text on standard error.
#pragma once

#include <CLI/CLI.hpp>

namespace ctl {

enum ExitStatus : int {
  kExitFine = 0,
  kExitWarning = 1,  // it works, and something deserves a look
  kExitFailure = 2,  // something that was asked about failed
  kExitUsage = 3,    // the command line is wrong
};

// One run of the program: what holds for every command. The app's options fill it before
// a command's callback runs.
struct Invocation {
  bool json = false;
  bool verbose = false;  // log and trace lines of the connector's code on standard error
  int exitStatus = kExitFine;
};

// The commands.
void addCheck(CLI::App& app, Invocation& invocation);
void addExplain(CLI::App& app, Invocation& invocation);
void addGet(CLI::App& app, Invocation& invocation);
void addPing(CLI::App& app, Invocation& invocation);
void addProps(CLI::App& app, Invocation& invocation);
void addWatch(CLI::App& app, Invocation& invocation);

}  // namespace ctl
