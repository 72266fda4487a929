// The spellings of header and variable names, and the escaping of percent signs.
//
// None keeps state. `req` is not used, except by EncodePercentage, and may be
// null elsewhere. Functions that write to `out` end it with a NUL; the caller
// gives it at least the length of `in` plus 1 bytes; `out` may be `in`.
// Threads: any; no lock. Failure: none, but for EncodePercentage.
#pragma once

#include "context/vesk_request.h"

// Replace in place. 1 if anything was replaced, else 0; null gives 0.
std::int32_t fromDashesToUnderscores(vesk_request* req, char* text);
std::int32_t fromUnderscoresToDashes(vesk_request* req, char* text);

void toUpperCaseWithDashes(vesk_request* req, const char* in, char* out);
void toUpperCaseWithUnderscores(vesk_request* req, const char* in, char* out);
void toLowerCaseWithDashes(vesk_request* req, const char* in, char* out);
void toLowerCaseWithUnderscores(vesk_request* req, const char* in, char* out);

// Whether two names differ in nothing but case, and in dashes for underscores.
[[nodiscard]] bool isSpellingOf(const char* name, const char* other);

// Makes `uri` of the request a new text with every '%' written as "%25", from
// the request's malloc, and returns it. Null, with `uri` as it was, when there is
// no '%' or no memory. The old text stays its owner's.
char* EncodePercentage(vesk_request* req);
