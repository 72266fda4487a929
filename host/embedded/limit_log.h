// Lines about clients that have met a limit: for each limit one a second at most,
// which counts those in between.
//
// Ownership: the log of errors outlives it. Threads: any; a lock of its own.
// Errors: a line that can't be written is lost.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "embedded/error_log.h"

namespace host {

class LimitLog {
 public:
  explicit LimitLog(ErrorLog* log) : log_(log) {}

  // `option` names the limit as the configuration does.
  void tell(std::string_view option, std::string_view client) noexcept;

  // The same about clients that could not be taken or kept at all.
  void tellLoss(std::string_view reason) noexcept;

  // Any other line of the kind.
  void tellLine(std::string_view line) noexcept;

 private:
  void write(std::string_view what, const std::string& line);
  struct Told {
    std::int64_t second;
    std::int64_t silent;  // since that second's line
  };

  ErrorLog* log_;
  std::mutex lock_;
  std::map<std::string, Told, std::less<>> told_;  // guarded by lock_
};

}  // namespace host
