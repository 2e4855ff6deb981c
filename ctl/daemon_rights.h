// The daemon's rights to files, for a check that root runs: a script that the daemon cannot read ends the daemon, and
// root can read all of them.
#pragma once

#include <sys/types.h>
#include <string>
#include <vector>

// While it lives, our process has the user, the group and the groups of the daemon; it does not take the daemon's
// capabilities or its view of the file system. One thread only.
class DaemonRights {
 public:
  // Those of process `daemon`. Nothing changes unless root runs us and another user runs the daemon. Throws
  // Failure(Exit::unreachable) when the daemon has gone or its rights cannot be taken.
  explicit DaemonRights(pid_t daemon);

  // Those of user `name`, as a daemon that is started for that user would have. Throws Failure: Exit::usage when there
  // is no such user or we are not root, Exit::unreachable when the rights cannot be taken.
  explicit DaemonRights(const std::string& name);
  DaemonRights(const DaemonRights&) = delete;
  DaemonRights& operator=(const DaemonRights&) = delete;
  ~DaemonRights();

 private:
  struct Rights {
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;
  };

  static Rights rights_of(pid_t daemon);
  static Rights rights_of(const std::string& name);
  void take(const Rights& theirs, const std::string& whose);
  void give_back() const;

  bool taken = false;
  gid_t group;  // ours, as are these
  std::vector<gid_t> groups;
};
