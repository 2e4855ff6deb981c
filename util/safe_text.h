// Untrusted text on its way to a log or a terminal, which it must not be able to control.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Returns `text` with control characters, U+0080 to U+009F included, and bytes that are not UTF-8 written in the forms
// "\n", "\r", "\t" and "\x1b". Line ends among the last `tail` bytes stay. Any thread.
std::string escaped(std::string_view text, size_t tail = 0);
