// Text of strangers on its way to a log or a terminal, neither of which it must be able to drive.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// `text` with every byte that may not go out as it is written "\n", "\r", "\t" or "\x1b": control characters, those of
// U+0080 to U+009F included, and bytes that are not UTF-8. Line ends among the last `tail` bytes stay. Any thread.
std::string escaped(std::string_view text, size_t tail = 0);
