#include "embedded/limit_log.h"

#include <time.h>

#include <exception>

#include "nsapi.h"

namespace host {

// `what` is what lines have in common of which one a second is enough.
void LimitLog::write(std::string_view what, const std::string& line) {
  std::lock_guard guard(lock_);
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  auto [place, first] = told_.try_emplace(std::string(what), Told{now.tv_sec, 0});
  Told& told = place->second;
  if (!first && told.second == now.tv_sec) {
    ++told.silent;
    return;
  }
  std::string others;
  if (told.silent > 0) others = ", and " + std::to_string(told.silent) + " more before";
  told = {now.tv_sec, 0};
  log_->write(LOG_WARN, "vesk-host", line + others);
}

void LimitLog::tell(std::string_view option, std::string_view client) noexcept try {
  write(option, "client " + std::string(client) + " met " + std::string(option));
} catch (const std::exception&) {
  // Without memory there is no line.
}

void LimitLog::tellLine(std::string_view line) noexcept try {
  write(line, std::string(line));
} catch (const std::exception&) {
  // Without memory there is no line.
}

void LimitLog::tellLoss(std::string_view reason) noexcept try {
  write(reason, "a client was lost: " + std::string(reason));
} catch (const std::exception&) {
  // Without memory there is no line.
}

}  // namespace host
