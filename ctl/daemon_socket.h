// How zelvctl gets to the daemon's Unix sockets, which have the same folder, owner and rules.
#pragma once

#include <string>

#include "util/descriptor.h"

// A stream socket that is connected to the daemon's socket at `path`; waits at most `limit_ms` while the queue of
// connections is full. Throws Failure(Exit::unreachable) when there is no daemon, when we are not allowed to connect,
// and when a stranger could have put the socket there: why_strangers() in util/file_trust.h, with the user who listens
// as its guest. Any thread.
Descriptor connect_to_daemon(const std::string& path, int limit_ms);
