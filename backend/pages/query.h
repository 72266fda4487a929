// A query string, taken apart and checked.
//
// Pure functions: any thread, no lock. Ownership: values are views of the query
// or of the fallback.
// Errors: a value that isn't what the page can use throws BadRequest, whose
// text is for the person who asked.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace backend {

// The request can't be served as it stands; the text tells the browser why.
struct BadRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

using Query = std::vector<std::pair<std::string, std::string>>;

// Splits at '&', then at the first '='; '+' and %XX are decoded, and a '%'
// without two hexadecimal digits stands for itself.
[[nodiscard]] Query parseQuery(std::string_view text);

// The first value of that name, or `fallback`.
[[nodiscard]] std::string_view valueOf(const Query& query, std::string_view name,
                                       std::string_view fallback);

struct Range {
  std::int64_t least;
  std::int64_t most;
  std::int64_t fallback;  // when the query doesn't name it
};

// The first value of that name as a whole decimal number within the range.
[[nodiscard]] std::int64_t numberOf(const Query& query, std::string_view name,
                                    Range range);

}  // namespace backend
