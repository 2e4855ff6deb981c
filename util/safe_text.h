// Untrusted text on its way to a log or a terminal, which it must not be able to control.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Length of the first character of `text`, which is not empty, in bytes; 0 when it is a control character, U+0080 to
// U+009F included, or not UTF-8. Any thread, as all that follows.
size_t harmless_length(std::string_view text);

// Returns `text` with control characters, U+0080 to U+009F included, and bytes that are not UTF-8 written in the forms
// "\n", "\r", "\t" and "\x1b". Line ends among the last `tail` bytes stay.
std::string escaped(std::string_view text, size_t tail = 0);
