// The uplink's settings: one table for the program, `zelvctl check` and the documents' test, and the values of one
// file. docs/uplink.md tells users what each one means; the format is that of the daemon's settings
// (docs/configuration.md).
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

constexpr char kUplinkSettingsPath[] = "/etc/zelvind/uplink.info";  // below DEVICE_ROOT

struct UplinkSettings {
  enum class Full { drop_oldest, drop_newest };

  // Of `broker`, a URL mqtt://HOST[:1883] or mqtts://HOST[:8883]; an IPv6 address stands in brackets.
  std::string host;
  int port = 0;
  bool tls = false;

  std::string device;               // [A-Za-z0-9_-]{1,64}; absent: 16 hexadecimal digits of a hash of /etc/machine-id
  std::string ca, cert, key;        // files, taken as they are; mqtts without ca: the system's authorities
  std::string user, password_file;  // the password is the first line of the file, read at each connect
  std::string prefix;               // of topics, "%i" replaced by the device
  std::vector<std::string> up;      // patterns of type names with "*" and "?"
  std::vector<std::string> urgent;  // likewise
  std::vector<std::string> down;    // type names
  int down_type = 20;
  int down_rate = 5;   // commands a second
  int rate = 50;       // publishes a second
  int in_flight = 20;  // publishes without acknowledgement, at most 20
  std::string spool;   // folder, taken as it is; absent: $DEVICE_ROOT/var/lib/zelvind-uplink
  size_t spool_bytes = size_t{4096} * 1024;
  Full full = Full::drop_oldest;
  std::chrono::milliseconds hold{2000};

  // `name` with "%i" replaced, e.g. topic("e/door") is "zelvind/gate-0017/e/door".
  std::string topic(std::string_view below_prefix) const { return prefix + "/" + std::string(below_prefix); }
};

struct UplinkSettingsResult {
  UplinkSettings settings;            // complete only while there are no problems
  std::vector<std::string> problems;  // one clear sentence each, with the line or key that it is about
  std::vector<std::string> warnings;  // likewise; the uplink starts all the same, e.g. without a certificate to come
};

// Whether one of `patterns` matches all of `name`. Any thread.
bool matches_any(const std::vector<std::string>& patterns, std::string_view name);

// Reads the settings file below `root`, DEVICE_ROOT or empty. Never throws for a bad file: what is wrong is in
// `problems`, an unknown key with the nearest known one included. Any thread.
UplinkSettingsResult read_uplink_settings(const std::string& root);

// The same of the file's bytes; `machine_id` is the text of /etc/machine-id, or empty.
UplinkSettingsResult parse_uplink_settings(std::string_view bytes, const std::string& root,
                                           std::string_view machine_id);
