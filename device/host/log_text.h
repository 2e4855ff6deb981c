// The text of a log message on its way out. Whatever a client, an event or a script put into it, it must not forge a
// line or drive a terminal:
//
//   - a line end stays one in the white space that ends the format, and anywhere in a format without conversions: there
//     the program itself wrote it; any other is written "\n";
//   - every other control character is written likewise ("\t", "\x1b"), and so is a byte that is no UTF-8;
//   - everything else, UTF-8 included, is left as it is.
#pragma once

#include <cstdarg>
#include <string>

// Formats a message as printf does, whatever the locale, and makes it safe as above. Throws bad_alloc only. Any thread.
std::string log_text(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

// True when `text` ends in a line of nothing but blanks: the head of a line that more pieces will complete.
bool ends_in_blanks(const std::string& text);
