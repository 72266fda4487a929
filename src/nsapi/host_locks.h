// The host's critical sections as the connector's locks.
//
// A host may run its stages on threads of its own making, which only its own sections
// know how to block.
// Ownership: a critical section is the host's, and is never given back.
// Threads: the start-up thread. Failure: none here; a host without a critical section
// to give is reported where a lock is made.
#pragma once

// Call it before the first lock is made.
void installHostLocks();
