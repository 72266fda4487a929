// Attributes of a request that the host itself has put there.
//
// The API has no word for them: a host leaves a parameter `vesk-attribute-NAME` in
// `rq->vars`, where no client can write, and the server gets the attribute NAME.
//
// Ownership: texts stay the host's. Threads: the request's own. Failure: -1, when
// memory runs out; what was added by then goes with freeAttributes.
#pragma once

#include "context/vesk_request.h"

// Adds every attribute that the host has left. 0 or -1.
[[nodiscard]] std::int32_t addHostAttributes(vesk_request* req);

// Adds one, without the text's NUL. Both texts must stay as long as the attributes. 0
// or -1.
[[nodiscard]] std::int32_t addTextAttribute(vesk_request* req, const char* name,
                                            const char* text);
