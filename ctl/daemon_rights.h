// The daemon's rights to files, for a check that root runs: a script that the daemon cannot read ends the daemon, and
// root can read all of them.
#pragma once

#include <sys/types.h>
#include <vector>

// While it lives, our process has the user, the group and the groups of process `daemon`; it does not take the daemon's
// capabilities or its view of the file system. Nothing changes unless root runs us and another user runs the daemon.
// One thread only.
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
