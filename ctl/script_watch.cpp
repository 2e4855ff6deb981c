#include "ctl/script_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "ctl/failure.h"
#include "util/clock.h"
#include "util/script_files.h"

namespace {

constexpr int kMomentMs = 100;   // without a change: the changes are over
constexpr int kSettleMs = 2000;  // changes that go on for longer count as over
constexpr uint32_t kChanges = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;
constexpr uint32_t kGone = IN_DELETE_SELF | IN_MOVE_SELF;

// A link is complete when it is made; a file is not: it will be written.
bool is_link(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && (S_ISLNK(status.st_mode) || status.st_nlink > 1);
}

}  // namespace

ScriptWatch::ScriptWatch(std::vector<std::string> script_folders)
    : folders(std::move(script_folders)), notices(inotify_init1(IN_CLOEXEC)) {
  folders.erase(std::remove(folders.begin(), folders.end(), ""), folders.end());
  if (!watch_new_folders()) fail("there is no script folder to watch");
}

// Returns true when `folder` is there and was not watched yet.
bool ScriptWatch::watch(const std::string& folder) {
  const int number = inotify_add_watch(notices.get(), folder.c_str(), kChanges | kGone | IN_ONLYDIR);
  if (number < 0 && errno != ENOENT) fail("failed to watch " + folder + ": " + error_text(errno));
  return number >= 0 && watched.emplace(number, folder).second;
}

bool ScriptWatch::watch_new_folders() {
  namespace fs = std::filesystem;
  bool found = false;
  for (const std::string& folder : folders) {
    found |= watch(folder);
    const std::string libraries = folder + "/lib";
    std::error_code error;
    if (fs::is_directory(libraries, error)) found |= watch(libraries);
    for (fs::recursive_directory_iterator entry(libraries, error), end; !error && entry != end;
         entry.increment(error)) {
      if (entry->symlink_status(error).type() == fs::file_type::directory) found |= watch(entry->path().string());
    }
  }
  return found;
}

std::string ScriptWatch::text() const {
  std::string text;
  for (const std::string& folder : folders) {
    const bool is_missing = access(folder.c_str(), F_OK) != 0;
    text += (text.empty() ? "" : ", ") + folder + (is_missing ? " (missing so far)" : "");
  }
  return text;
}

bool ScriptWatch::wait_for_change(int limit_ms) {
  pollfd notice{notices.get(), POLLIN, 0};
  const int64_t end = steady_ms() + limit_ms;
  bool changed = false;
  for (int64_t left = limit_ms; !changed && left > 0; left = end - steady_ms()) {
    changed = poll(&notice, 1, static_cast<int>(left)) > 0 && read_changes();
  }
  if (!changed) return watch_new_folders();
  const int64_t settled = steady_ms() + kSettleMs;
  while (steady_ms() < settled && poll(&notice, 1, kMomentMs) > 0) read_changes();
  return true;
}

// Waits for notices. Returns true when one of them tells of a script that is complete.
bool ScriptWatch::read_changes() {
  alignas(inotify_event) char bytes[16384];
  const ssize_t got = read(notices.get(), bytes, sizeof(bytes));
  if (got < 0 && errno != EINTR) fail("failed to watch the scripts: " + error_text(errno));
  bool changed = false;
  for (ssize_t at = 0; at < got;) {
    const auto& notice = *reinterpret_cast<const inotify_event*>(bytes + at);
    if ((notice.mask & kGone) != 0) lose(notice);
    const bool is_script = notice.len > 0 && is_script_name(notice.name);
    const bool is_complete = (notice.mask & IN_CREATE) == 0 || is_link(script_in(watched[notice.wd], notice.name));
    changed |= (notice.mask & (IN_Q_OVERFLOW | kGone)) != 0 || (is_script && is_complete);
    at += static_cast<ssize_t>(sizeof(notice) + notice.len);
  }
  return changed;
}

// A watched folder is no longer where it was: its scripts are gone, too.
void ScriptWatch::lose(const inotify_event& notice) {
  const auto gone = watched.find(notice.wd);
  if (gone == watched.end()) return;
  if (std::find(folders.begin(), folders.end(), gone->second) != folders.end()) {
    fail("a script folder was removed or renamed");
  }
  if ((notice.mask & IN_MOVE_SELF) != 0) inotify_rm_watch(notices.get(), notice.wd);
  watched.erase(gone);
}
