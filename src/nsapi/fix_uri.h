// The URI of a folder, completed by the file that the host chose in it.
//
// A URI that ends in a slash was resolved by the host to a file inside that
// folder; the backend is to see the file's name.
// Ownership: the result is the caller's, and goes back through the record's `free`.
// Threads: any; it works on its arguments alone. Failure: null, when memory runs out.
#pragma once

#include "context/vesk_request.h"

// `uri` followed by what `path` names inside that folder. `base` is the folder that
// the host's translation started from, or null. Without a path the URI stays as it is.
[[nodiscard]] char* fix_uri(vesk_request* req, const char* uri, const char* path,
                            const char* base);
