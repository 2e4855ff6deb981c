#include "script/keep_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "device/log.h"
#include "util/descriptor.h"
#include "util/device_root.h"
#include "util/file_trust.h"
#include "util/quiet_write.h"
#include "util/service_thread.h"

namespace {

constexpr mode_t kFileMode = 0640;

std::string file_of(const std::string& name) {
  return name + ".keep";
}

// Opens the folder, never by a link. Returns none, with errno set, also when another user owns it: EPERM.
Descriptor open_folder() {
  const std::string path = keep_path("");
  errno = ENOENT;
  if (path.empty()) return Descriptor();
  const std::string without_slash = path.substr(0, path.size() - 1);
  Descriptor folder(
      above_standard_streams(open(without_slash.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
  struct stat status {};
  if (folder.get() < 0 || fstat(folder.get(), &status) != 0) return Descriptor();
  if (status.st_uid == geteuid() || status.st_uid == 0) return folder;
  folder.reset();
  errno = EPERM;
  return folder;
}

// Why an open file is not one that we have written, or null.
const char* why_foreign(int fd, size_t max) {
  struct stat status {};
  if (const char* const reason = why_not_ours(fd)) return reason;
  return fstat(fd, &status) != 0 || static_cast<size_t>(status.st_size) > max ? "it is too large" : nullptr;
}

// Returns false with errno set; the old file then stands as it was.
bool replace_file(int folder, const KeepWriter::Job& job) {
  const std::string fresh = job.name + ".new";
  const Descriptor file(make_fresh_file(folder, fresh.c_str(), kFileMode));
  if (file.get() < 0) return false;
  const bool written = write_fully(file.get(), job.text.data(), job.text.size()) && fsync(file.get()) == 0 &&
                       renameat(folder, fresh.c_str(), folder, file_of(job.name).c_str()) == 0;
  if (written) return true;
  const int error = errno;
  unlinkat(folder, fresh.c_str(), 0);
  errno = error;
  return false;
}

}  // namespace

const char* check_keep_name(std::string_view name) {
  if (name.empty()) return "the name is missing";
  if (name.size() > kKeepNameMax) return "the name is longer than 64 bytes";
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
  if (name.find_first_not_of(kLetters) == std::string_view::npos) return nullptr;
  return "expected letters, digits, '_' and '-' in the name";
}

std::string keep_path(const std::string& name) {
  std::string path;
  if (!under_device_root(kKeepFolder, path)) return "";
  return name.empty() ? path : path + file_of(name);
}

KeptFile read_kept(const std::string& name, char* text, size_t max, size_t* size, std::string& reason) {
  const Descriptor folder = open_folder();
  if (folder.get() >= 0) {
    const Descriptor file(above_standard_streams(
        openat(folder.get(), file_of(name).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
    if (file.get() >= 0) {
      const char* const foreign = why_foreign(file.get(), max);
      if (foreign != nullptr) return reason = foreign, KeptFile::foreign;
      const ssize_t got = pread(file.get(), text, max, 0);
      if (got >= 0) return *size = static_cast<size_t>(got), KeptFile::whole;
    }
  }
  if (errno == ENOENT) return KeptFile::missing;
  if (const char* const foreign = why_not_a_file(errno)) return reason = foreign, KeptFile::foreign;
  reason = strerrordesc_np(errno);
  return KeptFile::unreadable;
}

bool put_aside(const std::string& name, const std::string& reason) {
  const Descriptor folder = open_folder();
  const std::string path = keep_path(name);
  if (renameat(folder.get(), file_of(name).c_str(), folder.get(), (name + ".bad").c_str()) == 0) {
    elog(1, "mscript: keep: put %s aside as %s.bad: %s", path.c_str(), name.c_str(), reason.c_str());
    return true;
  }
  elog(1, "mscript: keep: cannot use %s: %s; failed to put it aside: %s", path.c_str(), reason.c_str(),
       strerrordesc_np(errno));
  return false;
}

// Returns the first failure, or empty.
std::string KeepWriter::write_files() {
  const std::string path = keep_path("");
  Descriptor folder;
  if (path.empty()) {
    errno = ENOENT;
  } else if (make_folders(path, FolderSync::each)) {
    folder = open_folder();
  }
  std::string failure;
  for (Job& job : jobs) {
    job.failed = folder.get() < 0 || !replace_file(folder.get(), job);
    if (job.failed && failure.empty()) failure = path + file_of(job.name) + ": " + strerrordesc_np(errno);
  }
  if (folder.get() >= 0) fsync(folder.get());  // the renames
  return failure;
}

void* KeepWriter::write_round(void* instance) {
  KeepWriter& writer = *static_cast<KeepWriter*>(instance);
  sigset_t file_too_large;
  sigemptyset(&file_too_large);
  sigaddset(&file_too_large, SIGXFSZ);  // a limit on the size of files is a failure like any other
  pthread_sigmask(SIG_BLOCK, &file_too_large, nullptr);
  try {
    const std::string failure = writer.write_files();
    if (failure != writer.said && !failure.empty()) elog(1, "mscript: keep: failed to write %s", failure.c_str());
    writer.said = failure;
  } catch (...) {
    elog(1, "mscript: keep: no memory to write files");
    for (Job& job : writer.jobs) job.failed = true;
  }
  writer.ended = true;
  return nullptr;
}

void KeepWriter::start(std::vector<Job> round) {
  jobs = std::move(round);
  ended = false;
  const int error = start_service_thread(&thread, write_round, this);
  if (error == 0) return;
  elog(1, "mscript: keep: failed to start a thread: %s", strerrordesc_np(error));
  for (Job& job : jobs) job.failed = true;
}

std::vector<KeepWriter::Job> KeepWriter::take_done() {
  if (thread != 0) pthread_join(thread, nullptr);
  thread = 0;
  return std::exchange(jobs, {});
}
