#include "ctl/script_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <cerrno>

#include "ctl/failure.h"
#include "script/script_list.h"

namespace {

constexpr int kMomentMs = 100;
constexpr uint32_t kChanges = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;
constexpr uint32_t kGone = IN_DELETE_SELF | IN_MOVE_SELF;

[[noreturn]] void fail(const std::string& sentence) {
  throw Failure(Exit::unreachable, sentence);
}

}  // namespace

ScriptWatch::ScriptWatch(const std::vector<std::string>& folders) : notices(inotify_init1(IN_CLOEXEC)) {
  int watched = 0;
  for (const std::string& folder : folders) {
    if (folder.empty()) continue;
    if (inotify_add_watch(notices.get(), folder.c_str(), kChanges | kGone | IN_ONLYDIR) >= 0) {
      ++watched;
    } else if (errno != ENOENT) {
      fail("cannot watch " + folder + ": " + error_text(errno));
    }
  }
  if (watched == 0) fail("there is no script folder to watch");
}

void ScriptWatch::wait_for_change() {
  while (!read_changes()) {
  }
  pollfd more{notices.get(), POLLIN, 0};
  while (poll(&more, 1, kMomentMs) != 0) read_changes();
}

// Waits for notices. Returns true when one of them is about a script.
bool ScriptWatch::read_changes() {
  alignas(inotify_event) char bytes[16384];
  const ssize_t got = read(notices.get(), bytes, sizeof(bytes));
  if (got < 0 && errno != EINTR) fail("cannot watch the scripts: " + error_text(errno));
  bool changed = false;
  for (ssize_t at = 0; at < got;) {
    const auto& notice = *reinterpret_cast<const inotify_event*>(bytes + at);
    if ((notice.mask & kGone) != 0) fail("a script folder has gone");
    changed |= (notice.mask & IN_Q_OVERFLOW) != 0 || (notice.len > 0 && is_script_name(notice.name));
    at += static_cast<ssize_t>(sizeof(notice) + notice.len);
  }
  return changed;
}
