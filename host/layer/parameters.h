// Parameter blocks: lists of name and value that keep the order of insertion.
//
// A block has one bucket, and new entries go to its end: who walks the chains
// finds the parameters in the order in which they came. A name may stand more
// than once. Chains are for reading, and may be put in another order; who takes
// entries out, or renames them, does it by the functions.
//
// Ownership: memory comes from the running request of the calling thread, or,
// outside a request, from the heap until freeParameters.
// Threads: a block belongs to one thread at a time. No lock.
// Errors: null when memory is short or the block is full; nothing has changed.
#pragma once

#include "nsapi.h"

namespace host {

// More than any honest request or response carries. A block that has reached it
// takes no further parameter, so that no peer can fill the memory; the log says
// so once a request.
constexpr int kMaxParameters = 4096;

[[nodiscard]] pblock* newParameters();

// Frees a block with all that it holds. Needed only outside a request.
void freeParameters(pblock* pb);

// Copies both texts. Null as well for a missing name, value or block.
pb_param* addParameter(pblock* pb, const char* name, const char* value);

// The value of the first parameter of that name, or null. Stays the block's.
[[nodiscard]] char* findValue(pblock* pb, const char* name);

// The first parameter of that name, or null; `remove` detaches it, and then it
// goes back through freeParameter.
pb_param* findParameter(pblock* pb, const char* name, bool remove);

// Gives back a detached parameter; null does nothing.
void freeParameter(pb_param* param);

// The block as name="value" pairs with blanks between, in new memory of the
// request that goes back through releasePoolBlock. A text before is put first.
[[nodiscard]] char* writeParameters(const pblock* pb, const char* before);

}  // namespace host
