// strprintf: printf-style formatting into a new std::string.
//
// Pure function: no shared state, callable from any thread.
#pragma once

#include <string>

// Returns the formatted text. Returns an empty string when the output is empty,
// when formatting fails (an encoding error) or when `format` is null.
std::string strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
