// Text helpers: formatting, and the "name=value&name=value" lists of which an event's info consists. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// printf into a string, which is cut after 2047 characters.
std::string sstr(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Copies `text` into out[size], zero-terminated; what does not fit is cut. size must be at least 1.
void copy_text(char* out, size_t size, const char* text);

// Removes the first item of `list`, and the separator behind it. Returns the item, which is a part of the list.
std::string_view take_item(std::string_view& list, char separator);

// The beginning of `text`, which is UTF-8: at most `most` bytes, without a part of a character at its end.
std::string_view cut_text(std::string_view text, size_t most);

// Index of the first byte of `s` that equals the low 8 bits of `c`, or the length of `s`.
int char_index(const char* s, int c);

// Looks up an item of `text`, a list of items joined by "&". `key` is the field name with "=" appended. The first item
// that begins with the key counts; the rest of it is copied into `out`, which must hold max + 1 bytes. Returns the
// offset in `text` just past the item, -1 when no item matches, -2 when the value is longer than `max`; on failure
// `out` is empty. Bytes are compared as they are: nothing is trimmed or decoded.
int query_field(const char* text, const char* key, char* out, int max);

// Whether `pattern` matches all of `name`: "*" stands for any bytes, also none, "?" for one.
bool matches_pattern(std::string_view pattern, std::string_view name);

// "; did you mean KEY?" with the one of `known` that is nearest to `word`, or empty when none is near.
std::string suggestion_for(std::string_view word, const std::vector<std::string>& known);
