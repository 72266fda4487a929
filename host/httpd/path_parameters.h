// Path parameters, as in "/shop/cart;id=7": a server drops them from each part of a path
// before it looks what the path names. Where NSAPIMapping says so, httpd judges the path
// as that server will, and the server gets it as it came.
//
// Ownership: texts are of the request's pool. Threads: the one that runs the request. No
// lock. Errors: none.
#pragma once

#include <httpd.h>

namespace host {

// The URI as it came, once httpd has judged it without its parameters; null where it
// is the one in the request. An index file's takes over the parameters of its folder's.
[[nodiscard]] char* wholeUri(request_rec* r);

}  // namespace host
