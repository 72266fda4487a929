// The property sets with which a server describes itself: lines of key=value.
//
// Pure functions: any thread, no lock. Ownership: results are the caller's.
// Errors: std::invalid_argument for a key or value that no line can hold;
// options and cluster file are checked before, so none of theirs is one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "backend/options.h"

namespace backend {

// Appends one line, "key=value", with the value escaped so that it is read back
// as it is here. The key goes out literally.
void appendProperty(std::string& text, std::string_view key, std::string_view value);

[[nodiscard]] std::string serverProps(const Options& options);
[[nodiscard]] std::string servletMappings(const Options& options);
[[nodiscard]] std::string clusteredServers(const std::vector<std::string>& servers);

}  // namespace backend
