#include "ctl/human_text.h"

#include <algorithm>
#include <ctime>

#include "util/safe_text.h"
#include "util/text.h"

namespace {

constexpr uint64_t kSecond = 1000000;
constexpr uint64_t kMinute = 60 * kSecond;
constexpr uint64_t kHour = 60 * kMinute;
constexpr uint64_t kDay = 24 * kHour;

std::string in_two(uint64_t us, uint64_t large, const char* large_name, uint64_t small, const char* small_name) {
  const auto first = static_cast<unsigned long long>(us / large);
  const auto second = static_cast<unsigned long long>(us % large / small);
  return second == 0 ? sstr("%llu %s", first, large_name)
                     : sstr("%llu %s %llu %s", first, large_name, second, small_name);
}

std::string in_unit(double value, const char* unit) {
  return sstr(value < 99.95 ? "%.1f %s" : "%.0f %s", value, unit);
}

bool begins_character(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0) != 0x80;
}

// The offset in UTF-8 `text` behind its first `characters`.
size_t offset_behind(const std::string& text, size_t characters) {
  size_t at = 0;
  for (; at < text.size(); ++at) {
    if (begins_character(text[at]) && characters-- == 0) break;
  }
  return at;
}

}  // namespace

std::string duration_text(uint64_t us) {
  if (us < 1000) return us == 0 ? "0 s" : std::to_string(us) + " us";
  if (us < kSecond) return in_unit(static_cast<double>(us) / 1000, "ms");
  const uint64_t tenths = us / (kSecond / 10);
  if (us < kMinute) return sstr("%.1f s", static_cast<double>(tenths) / 10);
  if (us < kHour) return in_two(us, kMinute, "min", kSecond, "s");
  if (us < kDay) return in_two(us, kHour, "h", kMinute, "min");
  return in_two(us, kDay, "d", kHour, "h");
}

std::string size_text(uint64_t bytes) {
  constexpr double kKi = 1024;
  const auto size = static_cast<double>(bytes);
  if (bytes < 1024) return std::to_string(bytes) + " B";
  if (size < kKi * kKi) return in_unit(size / kKi, "KiB");
  return size < kKi * kKi * kKi ? in_unit(size / kKi / kKi, "MiB") : in_unit(size / kKi / kKi / kKi, "GiB");
}

std::string rate_text(double per_second) {
  return sstr(per_second < 99.95 ? "%.1f" : "%.0f", per_second);
}

std::string number_of(uint64_t number, const char* thing, const char* things) {
  const std::string name = number == 1 ? thing : things != nullptr ? things : std::string(thing) + "s";
  return std::to_string(number) + " " + name;
}

std::string time_text(uint64_t seconds) {
  const auto when = static_cast<time_t>(seconds);
  tm parts{};
  localtime_r(&when, &parts);
  char text[32] = "";
  strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

size_t characters_of(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins_character));
}

std::string shown(std::string_view text, size_t most) {
  std::string safe = escaped(text.substr(0, 4 * most));  // no character has more bytes
  if (text.size() <= 4 * most && characters_of(safe) <= most) return safe;
  safe.resize(offset_behind(safe, most - 3));
  return safe + "...";
}

std::string padded(const std::string& text, size_t width) {
  const size_t length = characters_of(text);
  return length >= width ? text : text + std::string(width - length, ' ');
}
