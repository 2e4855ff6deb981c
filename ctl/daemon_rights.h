// The daemon's rights to files, for a check by root: a script that root can read and the daemon cannot ends the daemon.
#pragma once

#include <sys/types.h>
#include <vector>

// As long as it lives, this process goes by the user, the group and the groups of process `daemon`, when it was root's
// and the daemon is another user's; otherwise nothing changes. Not by the daemon's capabilities, nor by its view of the
// file system.
class DaemonRights {
 public:
  // Throws Failure(Exit::unreachable) when the daemon has gone or its rights cannot be taken.
  explicit DaemonRights(pid_t daemon);
  DaemonRights(const DaemonRights&) = delete;
  DaemonRights& operator=(const DaemonRights&) = delete;
  ~DaemonRights();

 private:
  void give_back() const;

  bool taken = false;
  gid_t group;  // ours, as are these
  std::vector<gid_t> groups;
};
