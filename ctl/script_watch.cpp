#include "ctl/script_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

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

ScriptWatch::ScriptWatch(const std::vector<std::string>& folders) : notices(inotify_init1(IN_CLOEXEC)) {
  for (const std::string& folder : folders) {
    if (!folder.empty()) missing.push_back(folder);
  }
  if (!add_missing()) fail("there is no script folder to watch");
}

// Returns true when a folder that was missing is there now.
bool ScriptWatch::add_missing() {
  std::vector<std::string> still_missing;
  for (const std::string& folder : missing) {
    const int number = inotify_add_watch(notices.get(), folder.c_str(), kChanges | kGone | IN_ONLYDIR);
    if (number < 0 && errno != ENOENT) fail("failed to watch " + folder + ": " + error_text(errno));
    if (number < 0) {
      still_missing.push_back(folder);
    } else {
      watched[number] = folder;
    }
  }
  still_missing.swap(missing);
  return missing.size() < still_missing.size();
}

std::string ScriptWatch::text() const {
  std::string text;
  for (const auto& [number, folder] : watched) text += (text.empty() ? "" : ", ") + folder;
  for (const std::string& folder : missing) text += ", " + folder + " (missing so far)";
  return text;
}

bool ScriptWatch::wait_for_change(int limit_ms) {
  pollfd notice{notices.get(), POLLIN, 0};
  const int64_t end = steady_ms() + limit_ms;
  bool changed = false;
  for (int64_t left = limit_ms; !changed && left > 0; left = end - steady_ms()) {
    changed = poll(&notice, 1, static_cast<int>(left)) > 0 && read_changes();
  }
  if (!changed) return add_missing();
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
    if ((notice.mask & kGone) != 0) fail("a script folder was removed or renamed");
    const bool is_script = notice.len > 0 && is_script_name(notice.name);
    const bool is_complete = (notice.mask & IN_CREATE) == 0 || is_link(script_in(watched[notice.wd], notice.name));
    changed |= (notice.mask & IN_Q_OVERFLOW) != 0 || (is_script && is_complete);
    at += static_cast<ssize_t>(sizeof(notice) + notice.len);
  }
  return changed;
}
