#include "app/conf_file.h"

#include <exception>

#include "app/except.h"
#include "device/config_store.h"

namespace {

constexpr int kStoreType = 0;
constexpr char kStoreFile[] = "zelvind.info";
constexpr char kStoreDir[1024] = "/opt/flash/mtd4-cfg";  // store libraries may read the whole buffer

}  // namespace

ConfFile::ConfFile() : handle(econf_open(kStoreType, kStoreFile, kStoreDir)) {
  if (handle == nullptr) {
    throw except_conf("Failed to open conf[name:%s,type:%d,path:%s]", kStoreFile, kStoreType, kStoreDir);
  }
}

ConfFile::~ConfFile() {
  econf_close(handle);
}

// What a device's own library throws is no value either.
int ConfFile::get_int(const char* key, int otherwise) try {
  int value = 0;
  return econf_get_int(handle, key, &value) < 0 ? otherwise : value;
} catch (const std::exception&) {
  return otherwise;
}

std::string ConfFile::get_str(const char* key, const std::string& otherwise) try {
  char value[kSettingMax + 1] = "";
  return econf_get_str(handle, key, value, sizeof(value)) < 0 ? otherwise : std::string(value);
} catch (const std::exception&) {
  return otherwise;
}
