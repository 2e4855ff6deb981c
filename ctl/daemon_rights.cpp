#include "ctl/daemon_rights.h"

#include <grp.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "ctl/failure.h"

namespace {

struct Rights {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;
};

[[noreturn]] void refuse_rights(pid_t daemon, int error) {
  fail("failed to take the rights of the daemon (process " + std::to_string(daemon) + "): " + error_text(error));
}

// Reads the lines "Uid: REAL EFFECTIVE ...", "Gid: REAL EFFECTIVE ..." and "Groups: GROUP ...".
Rights rights_of(pid_t daemon) {
  std::ifstream status("/proc/" + std::to_string(daemon) + "/status");
  if (!status) refuse_rights(daemon, errno);
  Rights rights;
  bool is_whole = false;
  for (std::string line; std::getline(status, line);) {
    std::istringstream words(line);
    std::string key;
    unsigned real = 0;
    words >> key;
    if (key == "Uid:") words >> real >> rights.user;
    if (key == "Gid:") words >> real >> rights.group;
    if (key != "Groups:") continue;
    is_whole = true;
    for (gid_t group = 0; words >> group;) rights.groups.push_back(group);
  }
  if (!is_whole) refuse_rights(daemon, ESRCH);
  return rights;
}

}  // namespace

// The real user changes too, since access() uses it. The saved one stays root, for the way back.
DaemonRights::DaemonRights(pid_t daemon) : group(getegid()) {
  if (geteuid() != 0) return;
  const Rights theirs = rights_of(daemon);
  if (theirs.user == 0) return;
  groups.resize(static_cast<size_t>(getgroups(0, nullptr)));
  if (getgroups(static_cast<int>(groups.size()), groups.data()) < 0) refuse_rights(daemon, errno);
  taken = true;
  if (setgroups(theirs.groups.size(), theirs.groups.data()) != 0 || setresgid(theirs.group, theirs.group, group) != 0 ||
      setresuid(theirs.user, theirs.user, 0) != 0) {
    const int error = errno;
    give_back();
    refuse_rights(daemon, error);
  }
}

DaemonRights::~DaemonRights() {
  if (taken) give_back();
}

void DaemonRights::give_back() const {
  // Going on with a mixture of both users' rights would be worse.
  if (setresuid(0, 0, 0) != 0 || setresgid(group, group, group) != 0 || setgroups(groups.size(), groups.data()) != 0) {
    abort();
  }
}
