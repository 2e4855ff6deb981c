// Untrusted text on its way to a log or a terminal, which it must not be able to control.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Length of the first character of `text`, which is not empty, in bytes; 0 when it is not UTF-8, or a control
// character: U+0080 to U+009F included, and what ends a line (U+2028, U+2029) or changes its direction (U+202A to
// U+202E, U+2066 to U+2069). Any thread, as all that follows.
size_t harmless_length(std::string_view text);

// Returns `text` with these control characters, and bytes that are not UTF-8, written in the forms "\n", "\r", "\t" and
// "\x1b". Line ends among the last `tail` bytes stay.
std::string escaped(std::string_view text, size_t tail = 0);
