// Small helpers for texts and numbers: lengths, the spellings of header and
// variable names, hexadecimal numbers, and the escaping of percent signs.
//
// None keeps state. `req` is not used, except by EncodePercentage, and may be
// null elsewhere. Functions that write to `out` end it with a NUL; the caller
// gives it at least the length of `in` plus 1 bytes; `out` may be `in`.
#pragma once

#include "context/vesk_request.h"

// Length of a text, in bytes; 0 for null.
[[nodiscard]] std::int64_t textLength(const char* text);

// The nearest 32-bit number: for log lines, whose formats have no wider one, and
// for results of that width.
[[nodiscard]] std::int32_t clampToInt32(std::int64_t number);

// Replace in place. 1 if anything was replaced, else 0; null gives 0.
std::int32_t fromDashesToUnderscores(vesk_request* req, char* text);
std::int32_t fromUnderscoresToDashes(vesk_request* req, char* text);

void toUpperCaseWithDashes(vesk_request* req, const char* in, char* out);
void toUpperCaseWithUnderscores(vesk_request* req, const char* in, char* out);
void toLowerCaseWithDashes(vesk_request* req, const char* in, char* out);
void toLowerCaseWithUnderscores(vesk_request* req, const char* in, char* out);

// Makes `uri` of the request a new text with every '%' written as "%25", from
// the request's malloc, and returns it. Null, with `uri` as it was, when there is
// no '%' or no memory. The old text stays its owner's.
char* EncodePercentage(vesk_request* req);

// The number that `text` spells in base 16 (sign and "0x" accepted); 0 when
// anything follows it.
[[nodiscard]] std::int64_t hexstrtol(const char* text);
