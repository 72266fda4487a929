// The user and the group that the process serves as.
//
// Ownership: none. Threads: one, before any other is made. Errors: a text; empty
// for success.
#pragma once

#include <string>

namespace host {

// Finds out whether both can be looked up; an empty name is none.
[[nodiscard]] std::string checkIdentity(const std::string& user,
                                        const std::string& group);

// Gives up the rights that the process was started with for those of the user, with
// its groups, or of the group. Names that are empty change nothing.
[[nodiscard]] std::string becomeUser(const std::string& user, const std::string& group);

}  // namespace host
