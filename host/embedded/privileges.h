// The user and the group that the process serves as.
//
// Ownership: none. Threads: one, before any other is made. Errors: a text; empty
// for success.
#pragma once

#include <sys/types.h>

#include <string>

namespace host {

// Finds out whether both can be looked up; an empty name is none.
[[nodiscard]] std::string checkIdentity(const std::string& user,
                                        const std::string& group);

// Replaces the ids by those of the names that aren't empty.
void lookUpIdentity(const std::string& user, const std::string& group, uid_t* uid,
                    gid_t* gid);

// Gives up the rights that the process was started with for those of the user, with
// its groups, or of the group. Names that are empty change nothing.
[[nodiscard]] std::string becomeUser(const std::string& user, const std::string& group);

}  // namespace host
