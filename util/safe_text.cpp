#include "util/safe_text.h"

#include <cstdint>
#include <cstdio>

size_t harmless_length(std::string_view text) {
  const unsigned lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;
  if (lead < 0xc2 || lead > 0xf4) return 0;
  const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (text.size() < length) return 0;
  uint32_t code = lead & (0xffu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    const unsigned next = static_cast<unsigned char>(text[i]);
    if ((next & 0xc0) != 0x80) return 0;
    code = code << 6 | (next & 0x3f);
  }
  constexpr uint32_t kSmallest[] = {0, 0, 0xa0, 0x800, 0x10000};  // 0x80 to 0x9f are control characters too
  if (code < kSmallest[length] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return 0;
  const bool turns_line = (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
  return turns_line ? 0 : length;
}

namespace {

// The number of bytes before the first that is to be escaped.
size_t harmless_run(std::string_view text) {
  size_t run = 0;
  while (run < text.size()) {
    const size_t length = harmless_length(text.substr(run));
    if (length == 0) break;
    run += length;
  }
  return run;
}

void append_escaped(std::string& out, char c) {
  switch (c) {
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default: {
      char text[8];
      snprintf(text, sizeof(text), "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      out += text;
    }
  }
}

}  // namespace

std::string escaped(std::string_view text, size_t tail) {
  std::string out;
  out.reserve(text.size() + 8);
  while (!text.empty()) {
    const size_t run = harmless_run(text);
    out.append(text.substr(0, run));
    text.remove_prefix(run);
    if (text.empty()) break;
    if (text[0] == '\n' && text.size() <= tail) {
      out += '\n';
    } else {
      append_escaped(out, text[0]);
    }
    text.remove_prefix(1);
  }
  return out;
}
