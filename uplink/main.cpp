// zelvind-uplink: the device's chosen events go to an MQTT broker, and commands come back. Options, the settings file
// and signals; everything else is Uplink.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "device/log.h"
#include "uplink/uplink.h"
#include "util/descriptor.h"
#include "util/device_root.h"
#include "util/safe_text.h"

namespace {

constexpr char kProgram[] = "zelvind-uplink";
constexpr int kUsage = 2;  // wrong arguments or settings
constexpr int kLockTries = 10;
constexpr int kLockWaitMs = 100;  // between two

void complain(const std::string& sentence) {
  fprintf(stderr, "%s: %s\n", kProgram, escaped(sentence).c_str());
}

// Blocked before there are other threads, so that no signal is taken anywhere else.
int signal_descriptor() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return above_standard_streams(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Whoever starts this may have closed them; files of libraries must not get their numbers.
void fill_standard_streams() {
  int fd = 0;
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (fd >= 0) close(fd);
}

// Counts the starts of the program in a file of the spool's folder, and locks it: nothing when another uplink has it.
// Where it cannot be written, the spool says more.
std::optional<uint64_t> begin_session(const std::string& folder, Descriptor& file) {
  make_folders(folder);
  mkdir(folder.c_str(), 0700);
  const std::string path = folder + "/session";
  file.reset(above_standard_streams(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)));
  // A former one may be about to end.
  for (int tries = 0; file.get() >= 0 && flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; ++tries) {
    if (tries == kLockTries) return {};
    poll(nullptr, 0, kLockWaitMs);
  }
  char text[24] = "";
  if (file.get() >= 0 && pread(file.get(), text, sizeof(text) - 1, 0) < 0) text[0] = '\0';
  const uint64_t session = strtoull(text, nullptr, 10) + 1;
  const int size = snprintf(text, sizeof(text), "%llu\n", static_cast<unsigned long long>(session));
  if (file.get() < 0 || pwrite(file.get(), text, static_cast<size_t>(size), 0) != size || fdatasync(file.get()) != 0) {
    elog(1, "uplink: cannot write %s (%s): this session is not counted", path.c_str(), strerrordesc_np(errno));
  }
  return session;
}

int run(const std::string& root) {
  const Descriptor signals(signal_descriptor());
  UplinkSettingsResult read = read_uplink_settings(root);
  if (!read.problems.empty()) {
    const size_t more = read.problems.size() - 1;
    complain(root + kUplinkSettingsPath + ": " + read.problems.front() +
             (more == 0 ? "" : " (and " + std::to_string(more) + " more: see zelvctl check)"));
    return kUsage;
  }
  errlog_init(3, kProgram);
  for (const std::string& warning : read.warnings) elog(1, "uplink: %s", warning.c_str());
  const std::string folder = read.settings.spool;
  Descriptor lock;
  const auto session = begin_session(folder, lock);
  if (!session) {
    complain("another zelvind-uplink uses " + folder);
    return 1;
  }
  Uplink(std::move(read.settings), root, *session).run(signals.get());
  return 0;
}

int begin(int argc, char** argv) {
  CLI::App app("Sends events of zelvind to an MQTT broker, and takes commands from there. The settings are in " +
                   std::string(kUplinkSettingsPath) + "; SIGHUP connects anew, SIGTERM ends.",
               kProgram);
  std::string root;
  app.add_option("--root", root, "the folder to put in front of all paths, instead of DEVICE_ROOT")->type_name("DIR");
  app.set_version_flag("--version", std::string(kProgram) + " " + ZELVIND_VERSION);
  app.footer("Exit status: 0 ended by a signal, 1 another uplink runs, 2 wrong usage or settings.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  if (!root.empty()) setenv("DEVICE_ROOT", root.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): no other thread runs
  std::string ignored;
  if (!under_device_root("/", ignored)) return kUsage;
  const char* const of_environment = secure_getenv("DEVICE_ROOT");
  return run(of_environment == nullptr ? "" : of_environment);
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_streams();
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));  // a limit on the size of files is a failure like any other
  try {
    return begin(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "%s: %s\n", kProgram, error.what());
    return 1;
  }
}
