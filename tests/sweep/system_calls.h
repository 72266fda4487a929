// System calls that fail on demand, on the thread that asks for it alone.
#pragma once

#include <cstdint>

// The n-th call from here on fails with that error; 0: none does.
void failCall(std::int64_t number, int error);

// Calls since then.
std::int64_t callsMade();
