// What the records of a table say of a choice, as the question that server_choice
// answers.
//
// Both ask by it: the selection, which acts on the answer, and tools that explain one.
//
// Ownership: a question points at the list, the balance and the session's id; they are
// not copied. Threads: REQUIRES tableMutex. Failure: none.
#pragma once

#include "maptable/failed_list.h"
#include "maptable/server_choice.h"
#include "maptable/vesk_maptable_impl.h"

// What the servers are like at this moment, each value read once: a server changes its
// weight, and the pool its state, without the lock. `failed` may be null.
void readServers(const proxyList* list, const failedList* failed, ServerState* servers);

// The question that a mapping and a session put; that is null where there is none. The
// servers are not read yet.
[[nodiscard]] ChoiceQuestion questionOf(const proxyList* list,
                                        const mappingBalance* balance,
                                        const char* sessionId);

// Leaves the drained servers out of the entries that take part, which are copied to
// `active`, with room for a list. REQUIRES: the servers have been read.
void leaveOutDrained(ChoiceQuestion* question, std::uint32_t* active);
