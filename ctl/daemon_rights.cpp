#include "ctl/daemon_rights.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "ctl/failure.h"
#include "ctl/process.h"

namespace {

[[noreturn]] void refuse_rights(const std::string& whose, int error) {
  fail("failed to take the rights of " + whose + ": " + error_text(error));
}

}  // namespace

// Reads the lines "Uid: REAL EFFECTIVE ...", "Gid: REAL EFFECTIVE ..." and "Groups: GROUP ...".
DaemonRights::Rights DaemonRights::rights_of(pid_t daemon) {
  std::ifstream status(proc_path(daemon, "status"));
  if (!status) refuse_rights(daemon_text(daemon), errno);
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
  if (!is_whole) refuse_rights(daemon_text(daemon), ESRCH);
  return rights;
}

DaemonRights::Rights DaemonRights::rights_of(const std::string& name) {
  const passwd* const entry = getpwnam(name.c_str());  // NOLINT(concurrency-mt-unsafe): no other thread runs
  if (entry == nullptr) throw Failure(Exit::usage, "there is no user '" + name + "'");
  Rights rights{entry->pw_uid, entry->pw_gid, {}};
  int size = 0;
  getgrouplist(name.c_str(), rights.group, nullptr, &size);
  rights.groups.resize(static_cast<size_t>(size));
  getgrouplist(name.c_str(), rights.group, rights.groups.data(), &size);
  return rights;
}

DaemonRights::DaemonRights(pid_t daemon) : group(getegid()) {
  if (geteuid() == 0) take(rights_of(daemon), daemon_text(daemon));
}

DaemonRights::DaemonRights(const std::string& name) : group(getegid()) {
  const Rights theirs = rights_of(name);
  if (theirs.user == geteuid()) return;
  if (geteuid() != 0) throw Failure(Exit::usage, "only root can take the rights of user '" + name + "'");
  take(theirs, "user '" + name + "'");
}

// The real user changes too, since access() uses it. The saved one stays root, for the way back.
void DaemonRights::take(const Rights& theirs, const std::string& whose) {
  if (theirs.user == 0) return;
  groups.resize(static_cast<size_t>(getgroups(0, nullptr)));
  if (getgroups(static_cast<int>(groups.size()), groups.data()) < 0) refuse_rights(whose, errno);
  taken = true;
  if (setgroups(theirs.groups.size(), theirs.groups.data()) != 0 || setresgid(theirs.group, theirs.group, group) != 0 ||
      setresuid(theirs.user, theirs.user, 0) != 0) {
    const int error = errno;
    give_back();
    refuse_rights(whose, error);
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
