// Unix stream sockets at paths of any length. A socket address holds 107 bytes of path; a socket with a longer path is
// reached through a descriptor of its folder.
#pragma once

#include <sys/socket.h>

#include <string>

// A new Unix stream socket, close-on-exec and never below descriptor 3. Returns it, or -1 with errno set. Any thread.
int unix_stream_socket();

// Binds `fd` to `path`; its folder must exist. Returns 0, or -1 with errno set. Any thread.
int unix_bind(int fd, const std::string& path);

// Connects `fd` to the socket at `path`. Returns 0, or -1 with errno set. Any thread.
int unix_connect(int fd, const std::string& path);

// Returns the process and the user at the other end of the connected `fd`, as of its connect or listen; all 0 when the
// system does not know them. Any thread.
ucred unix_peer(int fd);
