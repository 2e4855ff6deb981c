#include "device/host/log_text.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "util/safe_text.h"

namespace {

// A script's os.setlocale is for the whole process; it must not change how the log writes a number.
class PlainLocale {
 public:
  PlainLocale() : before(uselocale(plain())) {}
  PlainLocale(const PlainLocale&) = delete;
  PlainLocale& operator=(const PlainLocale&) = delete;
  ~PlainLocale() { uselocale(before); }

 private:
  static locale_t plain() {
    static const locale_t the_locale = newlocale(LC_ALL_MASK, "C", nullptr);  // kept: the last line may come at exit
    return the_locale;
  }
  const locale_t before;
};

std::string format_text(const char* format, va_list arguments) {
  const PlainLocale locale;
  char buffer[1024];
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(buffer, sizeof(buffer), format, arguments);
  std::string text;
  if (length < 0) {
    text = format;
  } else if (static_cast<size_t>(length) < sizeof(buffer)) {
    text.assign(buffer, static_cast<size_t>(length));
  } else {
    text.resize(static_cast<size_t>(length));
    vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

bool has_conversions(const char* format) {
  for (const char* c = strchr(format, '%'); c != nullptr; c = strchr(c + 2, '%')) {
    if (c[1] != '%') return true;
  }
  return false;
}

size_t trailing_white_space(const char* format) {
  const std::string_view text(format);
  const size_t last = text.find_last_not_of(" \t\n\v\f\r");
  return last == std::string_view::npos ? text.size() : text.size() - last - 1;
}

}  // namespace

std::string log_text(const char* format, va_list arguments) {
  const std::string raw = format_text(format, arguments);
  const size_t tail = has_conversions(format) ? trailing_white_space(format) : raw.size();
  return escaped(raw, tail);
}

bool ends_in_blanks(const std::string& text) {
  const size_t last = text.find_last_not_of(' ');
  return last != std::string::npos && last + 1 < text.size() && text[last] == '\n';
}
