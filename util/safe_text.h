// Text of strangers on its way to a log or a terminal, neither of which it must be able to drive.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The number of bytes at the front of `text` that may go out as they are: UTF-8 without control characters (those of
// U+0080 to U+009F included). Any thread.
size_t harmless_run(std::string_view text);

// Appends a byte that is not harmless as "\n", "\r", "\t" or "\x1b".
void append_escaped(std::string& out, char c);
