// A request for the status page, taken apart.
//
// Ownership: texts are the host's. Threads: the request's own. Failure: none.
#pragma once

#include <nsapi.h>

#include <string_view>

#include "context/vesk_request.h"

struct mappingsTable;

struct StatusRequest {
  vesk_request* req;
  mappingsTable* table;
  const pblock* line;
  std::string_view path;  // of the page, without a '/' at its end
  bool explains;          // what is asked for is its explanation of a URL
  std::string_view query;
};

// Empty for null.
[[nodiscard]] inline std::string_view viewOf(const char* text) {
  return text ? std::string_view(text) : std::string_view();
}

// What the line says, or null; whether it says that.
[[nodiscard]] const char* lineValue(const StatusRequest& status, const char* name);
[[nodiscard]] bool lineSays(const StatusRequest& status, const char* name,
                            const char* word);

// Finds the page's path and what of it is asked for: false when the URI isn't the page's.
[[nodiscard]] bool locatePage(StatusRequest* status);

// Whether the client runs on this machine, as far as the host knows clients.
[[nodiscard]] bool isLocalClient(const vesk_request* req);
