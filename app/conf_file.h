// The daemon's settings file in the configuration store, open.
#pragma once

#include <string>

constexpr char kSettingsPath[] = "/opt/flash/mtd4-cfg/zelvind.info";  // where the embedded store has it
constexpr int kSettingMax = 10239;                                    // bytes of a text; a longer one is not used

struct econf_handle;

class ConfFile {
 public:
  // Opens "zelvind.info". Throws except_conf when there is none. Main thread, like everything here.
  ConfFile();
  ConfFile(const ConfFile&) = delete;
  ConfFile& operator=(const ConfFile&) = delete;
  ~ConfFile();

  // The value at `key`, or the default when the key is missing or no good; says nothing about either.
  int get_int(const char* key, int otherwise);
  std::string get_str(const char* key, const std::string& otherwise);

 private:
  econf_handle* handle;
};
