// Memory that all child processes share: plug-ins count there for all of them.
//
// It is made at the first start and stays for the life of httpd, over every reload. It
// takes pages only where something is written.
//
// Ownership: the process's. Threads: written before the first child; from then on read
// only. Errors: without it each child counts for itself, and a line in the log tells.
#pragma once

namespace host {

// Its descriptor, which no program that httpd starts inherits; -1: there is none.
[[nodiscard]] int sharedMemory();

}  // namespace host
