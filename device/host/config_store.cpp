#include "device/config_store.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "device/log.h"
#include "device/settings.h"
#include "device/store_text.h"
#include "util/descriptor.h"
#include "util/device_root.h"
#include "util/lua_binding.h"
#include "util/mutex.h"
#include "util/text.h"

// A handle holds the values as they were when the file was opened; the file itself is closed again.
struct econf_handle {
  StoreText store;
};

namespace {

constexpr off_t kFileMax = off_t{16} * 1024 * 1024;  // bytes

// Identifies a state of a file: complaints are repeated when it has changed.
using FileState = std::tuple<dev_t, ino_t, off_t, time_t, long>;

struct Complained {
  Mutex mutex;
  std::map<std::string, FileState> files GUARDED_BY(mutex);  // those complained about, by path
};

Complained& complained() {
  static auto* const the_complained = new Complained;  // any thread's scripts may use it until the process is gone
  return *the_complained;
}

// A forked copy of the daemon may read files too.
void before_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) {
  complained().mutex.lock();
}

void after_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) {
  complained().mutex.unlock();
}

// Returns true once for each state of the file at `path`.
bool is_news(const std::string& path, const struct stat& status) {
  const FileState state(status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
  Complained& c = complained();
  const MutexLock lock(c.mutex);
  const auto [entry, is_new] = c.files.try_emplace(path, state);
  if (!is_new && entry->second == state) return false;
  entry->second = state;
  return true;
}

void complain_about_file(const std::string& path, const char* reason) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return;  // a missing file is a matter for its reader
  if (is_news(path, status)) elog(1, "econf: cannot read %s: %s", path.c_str(), reason);
}

void complain_about_lines(const std::string& path, const struct stat& status, const StoreText& store) {
  if (store.complaints.empty() || !is_news(path, status)) return;
  for (const StoreComplaint& complaint : store.complaints) {
    if (complaint.line == 0) {
      elog(1, "econf: %s: %s", path.c_str(), complaint.text);
    } else {
      elog(1, "econf: %s:%d: %s", path.c_str(), complaint.line, complaint.text);
    }
  }
  if (store.more_complaints > 0) elog(1, "econf: %s: %d more bad lines", path.c_str(), store.more_complaints);
}

// The daemon cannot start without its settings: it says where it has looked for them.
void complain_when_missing(const std::string& folder, const char* file) {
  std::string path;
  if (!under_device_root(folder + "/" + file, path) || access(path.c_str(), F_OK) == 0) return;
  elog(1, "econf: cannot read %s: %s", path.c_str(), strerrordesc_np(errno));
}

// Reads a whole regular file. Returns null, or why it cannot be read.
const char* read_file(const std::string& path, std::string& bytes, struct stat& status) {
  const Descriptor file(above_standard_streams(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)));
  if (file.get() < 0 || fstat(file.get(), &status) != 0) return strerrordesc_np(errno);
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_size > kFileMax) return "it is larger than 16 MiB";
  bytes.resize(static_cast<size_t>(status.st_size));
  size_t size = 0;
  while (size < bytes.size()) {
    const ssize_t got = read(file.get(), bytes.data() + size, bytes.size() - size);
    if (got == 0) break;  // it has become shorter meanwhile
    if (got < 0 && errno != EINTR) return strerrordesc_np(errno);
    if (got > 0) size += static_cast<size_t>(got);
  }
  bytes.resize(size);
  return nullptr;
}

bool load(const std::string& folder, const char* file, StoreText& store) {
  std::string path;
  if (!under_device_root(folder + "/" + file, path)) return false;
  std::string bytes;
  struct stat status {};
  if (const char* reason = read_file(path, bytes, status)) {
    complain_about_file(path, reason);
    return false;
  }
  store = parse_store(bytes);
  complain_about_lines(path, status, store);
  return true;
}

const std::string* find_value(const StoreText& store, const char* key) {
  const auto found = store.values.find(std::string_view(key));
  return found == store.values.end() ? nullptr : &found->second;
}

bool find_int(const StoreText& store, const char* key, int& value) {
  const std::string* text = find_value(store, key);
  return text != nullptr && parse_store_int(*text, value);
}

// The name of a store file in the script's first argument.
const char* file_arg(lua_State* L) {
  const char* file = text_arg(L, 1);
  if (strchr(file, '/') != nullptr) throw ArgumentError(1, "a file name without a slash expected");
  return file;
}

// econf_str(file, key [, default]): the text, or the default, or nil.
int lua_econf_str(lua_State* L) {
  const char* file = file_arg(L);
  const char* key = text_arg(L, 2);
  lua_settop(L, 3);
  char* value = static_cast<char*>(lua_newuserdata(L, kStoreLineMax));  // Lua's own: pushing the text may raise
  const auto read_value = [&] {
    StoreText store;
    const std::string* text = load(kSettingsDir, file, store) ? find_value(store, key) : nullptr;
    if (text == nullptr) return -1;
    text->copy(value, text->size());
    return static_cast<int>(text->size());
  };
  const int size = read_value();
  if (size < 0) {
    lua_settop(L, 3);
  } else {
    lua_pushlstring(L, value, static_cast<size_t>(size));
  }
  return 1;
}

// econf_int(file, key [, default]): the number, or the default, or nil.
int lua_econf_int(lua_State* L) {
  const char* file = file_arg(L);
  const char* key = text_arg(L, 2);
  lua_settop(L, 3);
  int value = 0;
  const auto read_value = [&] {
    StoreText store;
    return load(kSettingsDir, file, store) && find_int(store, key, value);
  };
  if (read_value()) lua_pushinteger(L, value);
  return 1;
}

constexpr luaL_Reg kStoreApi[] = {{"econf_str", api<lua_econf_str>}, {"econf_int", api<lua_econf_int>}};

}  // namespace

extern "C" {

econf_handle* econf_open(int, const char* file, const char* dir) {
  auto handle = std::make_unique<econf_handle>();
  if (load(dir, file, handle->store)) return handle.release();
  complain_when_missing(dir, file);
  return nullptr;
}

int econf_get_int(econf_handle* handle, const char* key, int* value) {
  return find_int(handle->store, key, *value) ? 0 : -1;
}

int econf_get_str(econf_handle* handle, const char* key, char* buffer, int size) {
  if (handle->store.damaged.count(key) > 0) return ECONF_DAMAGED;
  const std::string* text = find_value(handle->store, key);
  if (text == nullptr || size <= 0 || text->size() >= static_cast<size_t>(size)) return -1;
  copy_text(buffer, static_cast<size_t>(size), text->c_str());
  return 0;
}

void econf_close(econf_handle* handle) {
  delete handle;
}

int econf_init(lua_State* L) {
  static const int registered = pthread_atfork(before_fork, after_fork, after_fork);
  (void)registered;
  std::string error;
  const bool added = protect(L, error, [](lua_State* state) {
    for (const luaL_Reg& entry : kStoreApi) lua_register(state, entry.name, entry.func);
  });
  if (added) return 0;
  elog(1, "econf: cannot add the store's functions to Lua: %s", error.c_str());
  return -1;
}

void econf_cleanup() {
  Complained& c = complained();
  const MutexLock lock(c.mutex);
  c.files.clear();
}
}
