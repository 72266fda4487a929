// The answers to GET and HEAD on the status page.
//
// Threads, locks: as for the stage. Failure: a status and REQ_ABORTED.
#pragma once

#include "nsapi/status_request.h"

// The page itself, in the form that the query asks for.
[[nodiscard]] int sendStatus(const StatusRequest& status);
// The explanation of the URL that the query asks for.
[[nodiscard]] int sendExplanationPage(const StatusRequest& status);
