// Figures and strangers' texts as a person reads them on a terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// "812 us", "1.2 ms", "312 ms", "12.3 s", "2 min 3 s", "3 h 2 min", "4 d 3 h". Microseconds.
std::string duration_text(uint64_t us);

// "812 B", "3.1 KiB", "12 MiB".
std::string size_text(uint64_t bytes);

// "0.3", "12.5", "1234".
std::string rate_text(double per_second);

// "1 event", "2 events"; `things` when it is not `thing` and an s.
std::string number_of(uint64_t number, const char* thing, const char* things = nullptr);

// Local time, "2026-11-22 19:26:33". Seconds since 1970.
std::string time_text(uint64_t seconds);

// How many characters UTF-8 `text` has.
size_t characters_of(const std::string& text);

// `text` made safe for a terminal, on one line, and cut to `most` characters, "..." included.
std::string shown(std::string_view text, size_t most);

// `text` and blanks up to `width` characters; a longer one stays as it is.
std::string padded(const std::string& text, size_t width);
