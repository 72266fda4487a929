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

static std::string becomeGroup(gid_t group, const std::string& name) {
  return setgid(group) == 0 ? std::string() : failure("group " + name);
}

// The groups first: the user has no right to change them.
std::string becomeUser(const std::string& user, const std::string& group) {
  const passwd* entry = user.empty() ? nullptr : getpwnam(user.c_str());
  const struct group* chosen = group.empty() ? nullptr : getgrnam(group.c_str());
  const uid_t id = entry ? entry->pw_uid : geteuid();
  const gid_t own = entry ? entry->pw_gid : getegid();
  const gid_t gid = chosen ? chosen->gr_gid : own;
  if (geteuid() == id && getegid() == gid) return {};
  if (entry && initgroups(user.c_str(), gid) != 0) return failure("user " + user);
  std::string reason = becomeGroup(gid, group.empty() ? user : group);
  if (!reason.empty()) return reason;
  return setuid(id) == 0 ? std::string() : failure("user " + user);
}

}  // namespace host
