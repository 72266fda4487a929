// Request variables: CGI-style names resolved against the host's parameter
// blocks, and the file path of a URI.
//
// Ownership: values are the host's texts or request memory of the host; a caller
// gives them back with freeHeader only. Threads: the request's own.
// Failure: null. The record must have its session and request.
#pragma once

#include "context/vesk_request.h"

// The value of a variable or request header, or null. A client header of exactly
// that spelling comes first, then the variables with a meaning of their own, then
// the blocks, in the spellings that occur. With the guard `identity` what the host alone
// can know (who the user is, say) never comes from a header, unless one is asked for
// under its own name; REMOTE_USER and the like, in capitals, name no header.
[[nodiscard]] const char* getHeader(vesk_request* req, const char* name);

// The values of VARIABLE_NAMES in their order, each as getHeader gives it, at less cost.
// `values` has room for kVariableCount.
void getVariables(vesk_request* req, const char** values);

// Searches the host's four blocks for a value that is not empty.
[[nodiscard]] const char* getOtherHeader(vesk_request* req, const char* name);

// The file path that the host translates a URI to: a copy to release with the
// record's `free`, or null. May block in the host's translation.
[[nodiscard]] char* getRealPath(vesk_request* req, const char* uri);
