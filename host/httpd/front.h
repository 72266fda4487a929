// A web server or balancer in front of httpd that ends TLS: who it is, and in which
// headers it tells of the browser's connection.
//
// Anybody can send such headers. They count only where the connection itself comes from
// a front; from anybody else they are left out, so that no server takes them for true.
//
// Ownership: httpd's configuration pool. Threads: one while the configuration is read;
// from then on read only. Errors: a reason for the person who wrote the line.
#pragma once

#include <httpd.h>

#include <string>
#include <string_view>

#include "layer/directive.h"

namespace host {

struct Front;

// Takes a line's parameters: the reason why they can't be used, or empty.
[[nodiscard]] std::string readFront(apr_pool_t* pool, Directive line,
                                    const Front** front);

// Whether this request came through the front; a null one is none.
[[nodiscard]] bool cameThrough(const Front* front, const request_rec* r);

// What the front says under a parameter of its line, as `cipher`; null for nothing.
// REQUIRES: the request came through it.
[[nodiscard]] const char* toldBy(const Front* front, const request_rec* r,
                                 std::string_view parameter);

// Whether the header is one of those that the front's line names.
[[nodiscard]] bool isFronts(const Front* front, std::string_view header);

}  // namespace host
