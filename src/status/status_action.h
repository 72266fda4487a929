// What an operator may do by the status page: drain a server, and put it back.
//
// A drained server keeps the sessions that it owns and gets nothing new, in all processes
// that share the board, until it is put back; a reload doesn't change that.
//
// Threads: any; no lock but that of event lines.
#pragma once

#include <string_view>

#include "context/vesk_request.h"

enum class ActionResult {
  done,
  forbidden,  // the token isn't that of the page
  unknown,    // no such action, or no server of that name
};

// Carries out what the fields token, server and action of a form say. Each change is told
// in the log, with the words for who made it.
[[nodiscard]] ActionResult applyAction(vesk_request* req, std::string_view form,
                                       const char* client);
