// The options of the connector's Init line, judged while the configuration is read.
//
// The connector reads them only when it starts, and goes on past what it can't use:
// here the person who wrote the line still sees what is said of it.
//
// Pure functions: one thread, no lock. Ownership: texts are the caller's.
#pragma once

#include <string>

#include "layer/directive.h"

namespace host {

// What is said of a line, without file and line number; an empty text says nothing.
struct OptionFindings {
  std::string reason;   // why it can't be used
  std::string warning;  // what its writer should know
};

// Judges an Init line. Nothing is said of one whose function isn't `veskinit`.
[[nodiscard]] OptionFindings checkOptions(const Directive& init);

}  // namespace host
