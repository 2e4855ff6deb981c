// What service.cpp needs to know before it can tell anybody the daemon's state.
#pragma once

#include <string>

// Takes what a service manager asks for out of the environment. Main thread, before the script thread starts.
void open_service();

// Keeps the state in file `path` from now on; with an empty path in none. Only the process whose the event socket is
// keeps one. Any thread.
void keep_service_state(const std::string& path);
