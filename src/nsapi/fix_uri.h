// The URI of a folder, completed by the file that the host chose in it.
//
// A URI that ends in a slash was resolved by the host to a file inside that
// folder; the backend is to see the file's name.
// Threads: any; it works on its arguments alone. Failure: null.
#pragma once

#include "context/vesk_request.h"

// `uri` followed by what `path` names inside that folder, from the record's
// malloc; null when memory runs out. `base` is the folder that the host's
// translation started from, or null. Without a path the URI stays as it is.
[[nodiscard]] char* fix_uri(vesk_request* req, const char* uri, const char* path,
                            const char* base);
