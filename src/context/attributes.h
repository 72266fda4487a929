// The attribute list of a request: the default attribute operations.
//
// Attributes travel with a request to the server, and a server may set more. The
// list is newest first and may hold a name twice; lookups find the newer one. A list
// is short as a rule and walked; one that a server has made long gets an index, so
// that a frame with all of it still costs one lookup a name.
//
// Ownership: nodes, index and the names array come from the request's allocators.
// Names and values are references that must stay valid until freeAttributes.
// Threads: the request's own. Failure: the list stays as it was; without memory for
// the index the list is walked. Units: bytes.
#pragma once

#include "context/vesk_request.h"

// Nodes that a list may have without an index.
constexpr std::int32_t kMaxWalkedAttributes = 32;

// These are the operations of the same names; the contracts stand there.
void getAttribute(vesk_request* req, const char* name, void* destination);
[[nodiscard]] std::int32_t getAttributeSize(vesk_request* req, const char* name);
[[nodiscard]] char** getAttributeNames(vesk_request* req);
void setAttribute(vesk_request* req, const char* name, const void* value,
                  std::int32_t size);
void freeAttributes(vesk_request* req);
void freeAttributeNames(vesk_request* req);
