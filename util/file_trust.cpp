#include "util/file_trust.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "util/text.h"

namespace {

constexpr int kLinksMax = 40;  // as many as the kernel follows

bool all_may_write(const struct stat& folder) {
  return S_ISDIR(folder.st_mode) && (folder.st_mode & S_IWOTH) != 0;
}

std::string writable_text(const std::string& folder) {
  return "all users may write to " + folder;
}

// The first name in `rest`, which it loses; "." when there is none between two slashes.
std::string take_name(std::string& rest) {
  const size_t end = std::min(rest.find('/'), rest.size());
  const std::string name = rest.substr(0, end);
  rest.erase(0, end + 1);
  return name.empty() ? "." : name;
}

// A walk from "/" through the entries of a path. Links are followed by hand: they are entries, and have owners too.
class Walk {
 public:
  Walk(std::string path, uid_t the_user, uid_t the_guest) : rest(std::move(path)), user(the_user), guest(the_guest) {}

  std::string to_end() {
    if (lstat("/", &here) != 0) return failure("/");
    owner_of_all = here.st_uid;
    std::string reason = why_writable("/");
    while (reason.empty() && !rest.empty()) reason = step(take_name(rest));
    return reason;
  }

 private:
  std::string step(const std::string& name) {
    if (name == ".") return "";
    if (name == "..") {
      place.erase(std::min(place.rfind('/'), place.size()));
      return lstat((place + "/").c_str(), &here) == 0 ? "" : failure(place);
    }
    const std::string entry = place + "/" + name;
    const bool is_shared = all_may_write(here);
    if (lstat(entry.c_str(), &here) != 0) return failure(entry);
    const uid_t owner = here.st_uid;
    const bool is_known = owner == 0 || owner == owner_of_all || owner == user;
    if (!is_known && (owner != guest || is_shared)) {
      return sstr("%s belongs to user %u%s", entry.c_str(), owner,
                  is_shared ? ", in a folder that all users may write to" : "");
    }
    if (S_ISLNK(here.st_mode)) return follow(entry);
    place = entry;
    return why_writable(entry);
  }

  std::string follow(const std::string& link) {
    char target[PATH_MAX];
    const ssize_t size = ++links > kLinksMax ? (errno = ELOOP, -1) : readlink(link.c_str(), target, sizeof(target));
    if (size < 0) return failure(link);
    rest.insert(0, std::string(target, static_cast<size_t>(size)) + "/");
    if (target[0] == '/') place.clear();
    return lstat((place + "/").c_str(), &here) == 0 ? "" : failure(place);
  }

  std::string why_writable(const std::string& folder) const {
    return all_may_write(here) && (here.st_mode & S_ISVTX) == 0 ? writable_text(folder) : "";
  }

  static std::string failure(const std::string& entry) {
    return "failed to examine " + entry + ": " + strerrordesc_np(errno);
  }

  std::string rest;   // what is still to be walked
  std::string place;  // where we are, without links; "" is "/"
  struct stat here {};
  uid_t owner_of_all = 0;
  const uid_t user;
  const uid_t guest;
  int links = 0;
};

}  // namespace

const char* why_not_ours(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return "it cannot be examined";
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_uid != geteuid()) return "it belongs to another user";
  if (status.st_nlink > 1) return "it has another hard link";
  return nullptr;
}

const char* why_not_a_file(int error) {
  return error == ELOOP || error == ENXIO || error == EISDIR ? "it is not a regular file" : nullptr;
}

int make_fresh_file(int folder, const char* name, mode_t mode) {
  if (unlinkat(folder, name, 0) != 0 && errno != ENOENT) return -1;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  return above_standard_streams(openat(folder, name, kFlags, mode));
}

std::string why_strangers(const std::string& path, uid_t user, uid_t guest) {
  return Walk(path, user, guest).to_end();
}

std::string why_open_to_strangers(const std::string& folder) {
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) return "";
  return all_may_write(status) ? writable_text(folder) : why_strangers(folder, geteuid(), geteuid());
}
