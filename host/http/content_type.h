// What kind of content the name of a file tells of. Pure: any thread, no lock.
#pragma once

#include <string_view>

namespace host {

// The content type that the ending of a file's name stands for, in either case.
[[nodiscard]] std::string_view contentTypeOf(std::string_view path);

}  // namespace host
