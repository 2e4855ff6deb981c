// The daemon's settings: the one table that the daemon, zelvctl and the documents' test use, and the file that holds
// their values. docs/configuration.md tells users what each one means.
#pragma once

#include <climits>
#include <optional>
#include <string>
#include <string_view>

#include "device/listener_access.h"

constexpr char kSettingsFile[] = "zelvind.info";
constexpr char kSettingsDir[1024] = "/opt/flash/mtd4-cfg";            // store libraries may read the whole buffer
constexpr char kSettingsPath[] = "/opt/flash/mtd4-cfg/zelvind.info";  // both, joined, for the embedded store
constexpr int kSettingMax = 10239;                                    // bytes of a text; a longer one is ignored

static_assert(std::string_view(kSettingsPath).find(kSettingsDir) == 0 &&
                  std::string_view(kSettingsPath).substr(std::string_view(kSettingsDir).size() + 1) == kSettingsFile,
              "the path of the settings is their folder and their file");

struct Setting {
  enum class Type { number, text };

  const char* key;
  Type type;
  int absent;               // of a number: its value when the key is missing or the value is not valid
  int least;                // of a number
  int most;                 // of a number
  const char* absent_text;  // of a text; null: the folder of the daemon's executable
  std::string (*problem)(std::string_view value);  // of a text: as settings::problem; null: its length counts

  static constexpr Setting number(const char* key, int absent, int least, int most) {
    return {key, Type::number, absent, least, most, nullptr, nullptr};
  }
  static constexpr Setting text(const char* key, const char* absent_text) {
    return {key, Type::text, 0, 0, 0, absent_text, nullptr};
  }
  static constexpr Setting checked(const char* key, std::string (*problem)(std::string_view)) {
    return {key, Type::text, 0, 0, 0, "", problem};
  }
};

namespace settings {

// The log's level: 1 errors and the daemon's start and end, 2 progress, 3 each event, 4 each client packet.
inline constexpr Setting log_level = Setting::number("log_level", 1, INT_MIN, INT_MAX);
// The folder of the Lua scripts.
inline constexpr Setting script_path = Setting::text("script_path", nullptr);
// A second folder, whose scripts replace those of the same name.
inline constexpr Setting external_path = Setting::text("external_path", "");
// The folder of the plug-ins.
inline constexpr Setting dll_path = Setting::text("dll_path", "/usr/lib");
// Events between two full collections of the Lua state.
inline constexpr Setting collect_every = Setting::number("collect_every", 20, 1, 1000000);
// The listener's TCP port; 0 lets the kernel choose.
inline constexpr Setting listener_port = Setting::number("listener_port", 5512, 0, 65535);
// Where the listener listens; missing: the port at every address. A wrong value opens nothing.
inline constexpr Setting listener_address = Setting::checked("listener_address", listener_address_problem);
// The networks from which clients may connect over TCP; missing: all. A wrong entry lets nobody in.
inline constexpr Setting listener_allow = Setting::checked("listener_allow", listener_allow_problem);
// The longest wait for slow clients, and the sum of these waits in a minute, in ms.
inline constexpr Setting listener_wait_ms = Setting::number("listener_wait_ms", 3000, 0, 60000);
// What all clients of the listener together may hold, in KiB.
inline constexpr Setting listener_memory = Setting::number("listener_memory", 16384, 64, 1048576);

// KiB for the ring of recent events; 0: none.
inline constexpr Setting event_memory = Setting::number("event_memory", 256, 0, 65536);
// 1: SIGHUP tries the reload in a forked copy first.
inline constexpr Setting reload_trial = Setting::number("reload_trial", 0, 0, 1);
// How long due coroutines wait, in ms, until one pass of them runs between two events; 0: until no event waits.
inline constexpr Setting coroutine_patience_ms = Setting::number("coroutine_patience_ms", 0, 0, 60000);
// A script call that holds the loop for longer, in ms, is named in the log; 0: never.
inline constexpr Setting script_warn_ms = Setting::number("script_warn_ms", 1000, 0, 3600000);
// A script call that holds the loop for longer, in ms, is ended; 0: never.
inline constexpr Setting script_limit_ms = Setting::number("script_limit_ms", 0, 0, 3600000);
// The memory of the Lua state, in KiB; 0: what the system has.
inline constexpr Setting script_memory = Setting::number("script_memory", 0, 0, 1048576);

inline constexpr const Setting* kAll[] = {
    &log_level,     &script_path,      &external_path,         &dll_path,         &collect_every,
    &listener_port, &listener_address, &listener_allow,        &listener_wait_ms, &listener_memory,
    &event_memory,  &reload_trial,     &coroutine_patience_ms, &script_warn_ms,   &script_limit_ms,
    &script_memory};

// The setting with that key, or null. Any thread, like problem().
const Setting* find(std::string_view key);

// What is wrong with `value`, what is expected, and what becomes of it: a text that begins with the key, empty when the
// value is good.
std::string problem(const Setting& setting, std::string_view value);

}  // namespace settings

struct econf_handle;

// The settings file in the configuration store, open.
class SettingsFile {
 public:
  // Throws except_conf when the file cannot be opened. Main thread, like everything here.
  SettingsFile();
  SettingsFile(const SettingsFile&) = delete;
  SettingsFile& operator=(const SettingsFile&) = delete;
  ~SettingsFile();

  // The value of a setting, or its default: silently when the key is missing or a text is too long, after a level 1
  // line when a number is not valid.
  int number(const Setting& setting);
  std::string text(const Setting& setting) { return text(setting, setting.absent_text); }

  // The value as it is written, also when it is wrong, and an empty text when it cannot be read; both are logged.
  // Nothing when the key is missing.
  std::optional<std::string> written(const Setting& setting);

  // As text(setting), with the caller's default.
  std::string text(const Setting& setting, const std::string& absent);

 private:
  econf_handle* handle;
};
