// A file that lines are appended to.
//
// Ownership: it owns its file. Threads: any; each line leaves in one write to a file
// that is open for appending, so lines never mix. No lock.
// Errors: as told; a line that can't be written is lost.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace host {

class LogFile {
 public:
  // Until a file is opened, lines go to `file`; -1: nowhere.
  explicit LogFile(int file) : file_(file) {}
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile();

  // False with errno; nothing has changed then. Without `follow` a path that is a link
  // is refused, as is right where others may write to its folder; /dev is nobody's.
  [[nodiscard]] bool open(const std::string& path, bool follow);

  // Opens the same file anew, as is wanted once it has been renamed. Lines of other
  // threads go to the old one or to the new one. False with errno: nothing has changed.
  [[nodiscard]] bool reopen();

  // Gives the file to a user, who may open it anew then; a failure shows at that. One
  // that has another name elsewhere stays whose it is.
  void giveTo(uid_t user, gid_t group);

  // The line brings its end.
  void write(std::string_view line) noexcept;

  [[nodiscard]] bool isOpen() const {
    return file_ >= 0;
  }

  [[nodiscard]] const std::string& path() const {
    return path_;
  }

 private:
  std::string path_;  // empty: not opened by path
  int file_;
};

}  // namespace host
