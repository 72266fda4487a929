// The error log: one line per message.
//
//   2026-03-01T12:00:00.123Z warning FUNCTION MESSAGE
//
// Ownership: the log owns its file. Threads: any; lines never mix. No lock.
// Errors: a line that can't be written is lost.
#pragma once

#include <string>
#include <string_view>

#include "embedded/log_file.h"

namespace host {

class ErrorLog {
 public:
  // Opens the file; before, and after a failure, lines go to standard error.
  // False with errno.
  [[nodiscard]] bool open(const std::string& path, bool follow) {
    return file_.open(path, follow);
  }

  // Opens the file anew; false with errno, and nothing has changed.
  [[nodiscard]] bool reopen() {
    return file_.reopen();
  }

  // As of a LogFile.
  void giveTo(uid_t user, gid_t group) {
    file_.giveTo(user, group);
  }

  // A line of the message that begins like an entry gets a tab in front. All else stays
  // as it is.
  void write(int degree, std::string_view function, std::string_view message) noexcept;

 private:
  LogFile file_{2};
};

}  // namespace host
