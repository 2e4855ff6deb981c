#include "control/answer.h"

#include <algorithm>

#include "control/counter.h"
#include "util/safe_text.h"
#include "util/text.h"

namespace {

int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

}  // namespace

void append_encoded(std::string& out, std::string_view value) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  while (!value.empty()) {
    const size_t length = value[0] == ' ' || value[0] == '%' ? 0 : harmless_length(value);
    if (length == 0) {
      const auto byte = static_cast<unsigned char>(value[0]);
      out.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
    } else {
      out.append(value.substr(0, length));
    }
    value.remove_prefix(std::max<size_t>(length, 1));
  }
}

bool append_decoded(std::string& out, std::string_view text) {
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      out += text[at];
      continue;
    }
    if (text.size() - at < 3) return false;
    const int high = hex_value(text[at + 1]);
    const int low = hex_value(text[at + 2]);
    if (high < 0 || low < 0) return false;
    out += static_cast<char>(high << 4 | low);
    at += 2;
  }
  return true;
}

Answer& Answer::line(std::string_view kind) {
  end_line();
  text += kind;
  return *this;
}

Answer& Answer::key(std::string_view name, std::string_view value) {
  plain_key(name, "");
  append_encoded(text, value);
  return *this;
}

Answer& Answer::plain_key(std::string_view name, std::string_view value) {
  text += ' ';
  text += name;
  text += '=';
  text += value;
  return *this;
}

Answer& Answer::durations(std::string_view prefix, const Durations& durations) {
  const std::string start(prefix);
  key(start + "sum_us", durations.sum_ns.get() / 1000).key(start + "max_us", durations.max_ns.get() / 1000);
  plain_key("buckets", "");
  for (int i = 0; i < Durations::kBuckets; ++i) {
    if (i > 0) text += ',';
    text += std::to_string(durations.buckets[i].get());
  }
  return *this;
}

void Answer::add_lines(std::string_view lines) {
  while (!lines.empty()) {
    const std::string_view next = take_item(lines, '\n');
    if (!next.empty()) line(next);
  }
}

void Answer::fail(std::string_view reason) {
  text.clear();
  line_start = bytes_cut = 0;
  line("error: ");
  text += escaped(reason);
}

void Answer::end_line() {
  if (text.size() == line_start) return;
  text += '\n';
  if (text.size() > kMost) {
    bytes_cut += text.size() - line_start;
    text.resize(line_start);
  }
  line_start = text.size();
}

std::string Answer::take_lines() {
  end_line();
  if (bytes_cut > 0) text += "cut bytes=" + std::to_string(bytes_cut) + '\n';
  std::string lines;
  lines.swap(text);
  line_start = bytes_cut = 0;
  return lines;
}
