// The error log: one line per message.
//
//   2026-03-01T12:00:00.123Z warning FUNCTION MESSAGE
//
// Ownership: the log owns its file. Threads: any; each line leaves in one write
// to a file that is open for appending, so lines never mix. No lock.
// Errors: a line that can't be written is lost.
#pragma once

#include <string>
#include <string_view>

namespace host {

class ErrorLog {
 public:
  ErrorLog() = default;
  ErrorLog(const ErrorLog&) = delete;
  ErrorLog& operator=(const ErrorLog&) = delete;
  ~ErrorLog();

  // Opens the file; before, and after a failure, lines go to standard error.
  // False with errno.
  [[nodiscard]] bool open(const std::string& path);

  // Opens the same file anew, as is wanted once it has been renamed. Lines of other
  // threads go to the old one or to the new one. False with errno: nothing has changed.
  [[nodiscard]] bool reopen();

  // A line of the message that begins like an entry gets a tab in front; a lone
  // carriage return is shown as \r. All else stays as it is.
  void write(int degree, std::string_view function, std::string_view message) noexcept;

 private:
  std::string path_;
  int file_ = 2;
};

}  // namespace host
