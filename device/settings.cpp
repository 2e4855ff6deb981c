#include "device/settings.h"

#include <cstring>
#include <exception>

#include "device/config_store.h"
#include "device/log.h"
#include "device/store_text.h"
#include "util/except.h"
#include "util/text.h"

namespace settings {

const Setting* find(std::string_view key) {
  for (const Setting* setting : kAll) {
    if (key == setting->key) return setting;
  }
  return nullptr;
}

std::string problem(const Setting& setting, std::string_view value) {
  if (setting.problem != nullptr) return setting.problem(value);
  if (setting.type == Setting::Type::text) {
    if (value.size() <= kSettingMax) return "";
    return sstr("%s is too long: expected at most %d bytes; it is not used", setting.key, kSettingMax);
  }
  int number = 0;
  if (parse_store_int(value, number) && number >= setting.least && number <= setting.most) return "";
  const std::string expected = sstr("a whole number from %d to %d", setting.least, setting.most);
  return sstr("%s is '%.100s': expected %s; it is not used", setting.key, std::string(value).c_str(), expected.c_str());
}

}  // namespace settings

namespace {

constexpr int kStoreType = 0;

// Logs the problem of a value, if there is one. Returns whether it is good.
bool is_good(const Setting& setting, std::string_view value) {
  const std::string problem = settings::problem(setting, value);
  if (!problem.empty()) elog(1, "econf: %s", problem.c_str());
  return problem.empty();
}

// A device's own library may throw: that is not a value either.
bool read_int(econf_handle* handle, const char* key, int& value) try {
  return econf_get_int(handle, key, &value) >= 0;
} catch (const std::exception&) {
  return false;
}

// Returns what econf_get_str returns.
int read_text(econf_handle* handle, const char* key, std::string& value) try {
  std::string buffer(kStoreLineMax + 1, '\0');  // longer than a good value, which is then seen to be too long
  const int result = econf_get_str(handle, key, buffer.data(), static_cast<int>(buffer.size()));
  if (result >= 0) value = buffer.substr(0, buffer.find('\0'));
  return result;
} catch (const std::exception&) {
  return ECONF_DAMAGED;
}

}  // namespace

SettingsFile::SettingsFile() : handle(econf_open(kStoreType, kSettingsFile, kSettingsDir)) {
  if (handle == nullptr) {
    throw except_conf("Failed to open conf[name:%s,type:%d,path:%s]", kSettingsFile, kStoreType, kSettingsDir);
  }
}

SettingsFile::~SettingsFile() {
  econf_close(handle);
}

int SettingsFile::number(const Setting& setting) {
  int value = 0;
  const bool is_number = read_int(handle, setting.key, value);
  if (is_number && value >= setting.least && value <= setting.most) return value;
  std::string written;
  if (is_number) written = std::to_string(value);
  if (is_number || read_text(handle, setting.key, written) >= 0) is_good(setting, written);
  return setting.absent;
}

std::string SettingsFile::text(const Setting& setting, const std::string& absent) {
  std::string value;
  return read_text(handle, setting.key, value) >= 0 && is_good(setting, value) ? value : absent;
}

std::optional<std::string> SettingsFile::written(const Setting& setting) {
  std::string value;
  const int result = read_text(handle, setting.key, value);
  if (result >= 0) is_good(setting, value);
  if (result == ECONF_DAMAGED) elog(1, "econf: %s cannot be read: it lets nobody in", setting.key);
  return result >= 0 || result == ECONF_DAMAGED ? std::optional(value) : std::nullopt;
}
