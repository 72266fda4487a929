// A value out of a query or of a form that a browser has sent, in its own spelling.
//
// Pure functions. Failure: false where the name isn't there, or its value doesn't fit or
// is spelled wrong. Units: bytes.
#pragma once

#include <cstddef>
#include <string_view>

// Puts the first value of that name into `value`, decoded and ended by a NUL. A value
// with a NUL in it is spelled wrong. `query` may be empty.
[[nodiscard]] bool readQuery(std::string_view query, std::string_view name, char* value,
                             std::size_t size);
