// Variables in property values: "{name}" stands for another property's value.
//
// A name runs from the first '{' to the first '}' behind it and is looked up
// exactly. A reference that can't be resolved vanishes, braces and all; a '{'
// without a '}' ends the expansion, and it and all behind it stay as they are.
//
// Ownership: results lie on the plain heap (doFree) and are the caller's. Tables
// are only read, and must not change meanwhile.
// Failure: null when memory runs out anywhere on the way; nothing stays behind.
// Limits: what would exceed one counts as a reference that can't be resolved, so
// values that refer to themselves end, with what was expanded up to there.
#pragma once

#include "properties/vesk_property.h"

// Values within values; one more level isn't looked up.
constexpr std::int32_t kMaxExpansionDepth = 32;
// References looked up in one call, at all levels together.
constexpr std::int32_t kMaxExpansionLookups = 1024;
// Bytes of a text that a value may grow to by being expanded.
constexpr std::int64_t kMaxExpandedLength = std::int64_t{64} * 1024;

// Looks for the first complete reference: 1 with the places of its braces, or 0.
// Without a '{', `end` isn't written.
[[nodiscard]] std::int32_t find_variable(const char* text, const char** start,
                                         const char** end);

// A new text, the value with its references replaced from `table` and, failing
// that, from `defaults`, which may be null. A null value counts as empty.
[[nodiscard]] char* expand_vars(const char* value, const propertyTable* table,
                                const propertyTable* defaults);

// The same, where "{vesk.server.rootdir}" is the entry of `serverRoots` for
// `serverName`, unexpanded, and "{vesk.server.name}" is `serverName` itself.
[[nodiscard]] char* expand_vars2(const char* value, const propertyTable* table,
                                 const propertyTable* defaults,
                                 const propertyTable* serverRoots,
                                 const char* serverName);

// The expanded value of a key: from `table`, or from `defaults` when it isn't
// there or is exactly "{default}". Null also when there is none.
[[nodiscard]] char* getPropertyValue2(const propertyTable* table,
                                      const propertyTable* defaults, const char* key);

// The same, with the variables of expand_vars2.
[[nodiscard]] char* getPropertyValue3(const propertyTable* table,
                                      const propertyTable* defaults,
                                      const propertyTable* serverRoots, const char* key,
                                      const char* serverName);
