#include "embedded/privileges.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace host {

std::string checkIdentity(const std::string& user, const std::string& group) {
  if (!user.empty() && !getpwnam(user.c_str())) return "there is no user " + user;
  if (!group.empty() && !getgrnam(group.c_str())) return "there is no group " + group;
  return {};
}

static std::string failure(const std::string& name) {
  return "can't become " + name + ": " + std::strerror(errno);
}

void lookUpIdentity(const std::string& user, const std::string& group, uid_t* uid,
                    gid_t* gid) {
  const passwd* entry = user.empty() ? nullptr : getpwnam(user.c_str());
  if (entry) {
    *uid = entry->pw_uid;
    *gid = entry->pw_gid;
  }
  const struct group* chosen = group.empty() ? nullptr : getgrnam(group.c_str());
  if (chosen) *gid = chosen->gr_gid;
}

// The groups first: the user has no right to change them.
std::string becomeUser(const std::string& user, const std::string& group) {
  uid_t uid = geteuid();
  gid_t gid = getegid();
  lookUpIdentity(user, group, &uid, &gid);
  if (geteuid() == uid && getegid() == gid) return {};
  if (!user.empty() && initgroups(user.c_str(), gid) != 0) return failure("user " + user);
  if (user.empty() && setgroups(1, &gid) != 0) return failure("group " + group);
  if (setgid(gid) != 0) return failure("group " + (group.empty() ? user : group));
  return setuid(uid) == 0 ? std::string() : failure("user " + user);
}

}  // namespace host
