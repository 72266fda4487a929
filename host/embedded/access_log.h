// The access log: a line for each request, in the combined format, with what the
// plug-in has left about its end behind it:
//
//   ADDRESS - USER [TIME] "REQUEST" STATUS BYTES "REFERER" "AGENT" SERVER ATTEMPTS
//   STATE MICROSECONDS SESSION
//
// What isn't known is "-". Quotes and control bytes of a client are shown as \xHH.
//
// Pure functions: any thread, no lock. Errors: std::bad_alloc.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "layer/request.h"

namespace host {

struct AccessEntry {
  HostRequest* request;     // with its records
  std::string_view client;  // its address
  time_t begin;
  std::int64_t bytes;  // of the body, as they went out
};

[[nodiscard]] std::string accessLine(const AccessEntry& entry);

}  // namespace host
