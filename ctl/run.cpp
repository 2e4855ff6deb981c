#include "ctl/run.h"

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

#include "ctl/configuration.h"
#include "ctl/failure.h"
#include "ctl/running_daemon.h"
#include "ctl/supervise.h"
#include "device/last_lines.h"
#include "device/settings.h"
#include "util/descriptor.h"
#include "util/quiet_write.h"
#include "util/text.h"

namespace {

constexpr int kReaderPatienceMs = 2000;

// The daemon's log goes to our own standard error: whoever looks for a reason has it already.
bool is_log_shown() {
  const char* const target = getenv("ELOG_TARGET");  // NOLINT(concurrency-mt-unsafe): no other thread runs
  return target == nullptr ? isatty(STDERR_FILENO) != 0 : strcmp(target, "stderr") == 0;
}

// What the daemon keeps for us as device/last_lines.h describes.
class LastLines {
 public:
  // Without a temporary file, nothing is kept. (Not one of memfd_create: the unit refuses that call, since code can be
  // written and run in such memory.)
  LastLines() : file(inherited_file()) {
    if (file.get() < 0) return;
    setenv(kLastLinesVariable, std::to_string(file.get()).c_str(), 1);  // NOLINT(concurrency-mt-unsafe): as above
  }

  // Each indented and with a line feed, oldest first.
  std::string text() const {
    std::map<unsigned long, std::string> lines;
    char slot[kLastLineSize];
    for (unsigned i = 0; i < kLastLines; ++i) {
      const ssize_t got = pread(file.get(), slot, sizeof(slot), static_cast<off_t>(i * kLastLineSize));
      char* end = nullptr;
      const unsigned long number = got > 0 ? strtoul(slot, &end, 10) : 0;
      const std::string_view line(end, number > 0 ? static_cast<size_t>(slot + got - end) : 0);
      if (number > 0) lines[number] = line.substr(0, line.find('\n'));
    }
    std::string text;
    for (const auto& [number, line] : lines) text += " " + line + "\n";
    return text;
  }

 private:
  // An unlinked file in /tmp that programs we start inherit, at a number of at least 3, or -1.
  static int inherited_file() {
    FILE* const made = tmpfile();
    if (made == nullptr) return -1;
    const int copy = fcntl(fileno(made), F_DUPFD, STDERR_FILENO + 1);
    fclose(made);
    return copy;
  }

  const Descriptor file;
};

// Three commands that make a first settings file; empty when there is one.
std::string settings_advice(const std::string& root) {
  const std::string path = root + kSettingsPath;
  if (access(path.c_str(), F_OK) == 0) return "";
  namespace fs = std::filesystem;
  const fs::path daemon = installed_daemon_folder();
  const fs::path prefix = (daemon / "../..").lexically_normal();
  const bool is_installed = fs::exists(prefix / "share/zelvind");
  const std::string scripts = (is_installed ? prefix / "share/zelvind" : daemon).string();
  const std::string plugins = (is_installed ? prefix / "lib/zelvind" : daemon.parent_path() / "lib/zelvind").string();
  return sstr(
      "There are no settings. To make some:\n  mkdir -p %s\n"
      "  printf 'script_path = %s\\ndll_path = %s\\n' >%s\n  zelvctl %scheck\n",
      fs::path(path).parent_path().c_str(), scripts.c_str(), plugins.c_str(), path.c_str(),
      root.empty() ? "" : ("--root " + root + " ").c_str());
}

// The daemon that runs below `root`. Fails when that cannot be told.
std::optional<RunningDaemon> daemon_below(const std::string& root) {
  try {
    return RunningDaemon::answering(root);
  } catch (const Failure&) {  // one without a free place, or without a control socket, still has a lock
  }
  if (auto owner = RunningDaemon::find(root)) return owner;
  try {
    RunningDaemon::fail_if_locks_hidden(root);
  } catch (const Failure& failure) {
    fail(failure.what() + std::string("; a daemon may run already, and --force starts another one"));
  }
  return std::nullopt;
}

}  // namespace

void run_daemon(const RunRequest& request) {
  if (const auto running = request.force ? std::nullopt : daemon_below(request.root)) {
    fail(running->text() + " is already running" + (request.root.empty() ? "" : " below " + request.root) +
         "; --force starts another one");
  }
  const LastLines lines;
  try {
    supervise(installed_daemon_folder() + "/zelvind", request.arguments);
  } catch (const Failure& failure) {
    const std::string kept = is_log_shown() ? "" : lines.text();
    // A reader that has stopped does not hold us up: the signals that would end us are blocked.
    write_quietly(STDERR_FILENO,
                  (kept.empty() ? "" : "zelvctl: the daemon's last lines:\n" + kept) + settings_advice(request.root) +
                      "zelvctl: " + failure.what() + "\n",
                  kReaderPatienceMs);
    throw Failure(failure.status, "");
  }
}
