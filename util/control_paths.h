// Where the daemon answers questions about itself. The protocol: docs/control.md.
#pragma once

// Below DEVICE_ROOT: a Unix stream socket.
constexpr char kControlSocketPath[] = "/run/zelvind/control.sock";

// The lock file beside it. The socket's owner writes its process id into it, and keeps it open and locked while it
// runs.
constexpr char kControlLockPath[] = "/run/zelvind/control.lock";
