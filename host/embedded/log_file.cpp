#include "embedded/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

static int openToAppend(const std::string& path, int flags) {
  return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | flags, 0644);
}

LogFile::~LogFile() {
  if (!path_.empty()) (void)close(file_);
}

bool LogFile::open(const std::string& path, bool follow) {
  const bool links = follow || path.starts_with("/dev/");
  const int file = openToAppend(path, links ? 0 : O_NOFOLLOW);
  if (file < 0) return false;
  file_ = file;
  path_ = path;
  return true;
}

// The number of the file stays, so that a thread that writes needs no lock.
bool LogFile::reopen() {
  if (path_.empty()) return true;
  const int file = openToAppend(path_, 0);
  if (file < 0) return false;
  const bool replaced = dup3(file, file_, O_CLOEXEC) >= 0;
  (void)::close(file);
  return replaced;
}

void LogFile::giveTo(uid_t user, gid_t group) {
  struct stat status {};
  const bool known = !path_.empty() && fstat(file_, &status) == 0;
  const bool own = known && S_ISREG(status.st_mode) && status.st_nlink == 1;
  if (own) (void)!fchown(file_, user, group);
}

void LogFile::write(std::string_view line) noexcept {
  if (file_ >= 0) (void)!::write(file_, line.data(), line.size());  // nowhere to tell
}

}  // namespace host
