// Files and folders that other users may have prepared: a link to a file of ours, a FIFO that nobody reads, a folder in
// which they can replace what is ours.
#pragma once

#include <sys/types.h>
#include <string>

#include "util/descriptor.h"

// What is wrong with the open file `fd` if it is not a regular file of our effective user with one link; else null.
// Opening it must have been safe: O_NOFOLLOW, O_NONBLOCK and no O_TRUNC. Any thread.
const char* why_not_ours(int fd);

// As why_not_ours, for the error with which open(2) refuses what is not a regular file; null for other errors.
const char* why_not_a_file(int error);

// Makes an empty file `name` in `folder` (AT_FDCWD: `name` is a path) and opens it for writing, whatever stands there
// before, except for a folder. Returns -1 with errno set when that fails. Any thread.
int make_fresh_file(int folder, const char* name, mode_t mode);

// Why somebody else may have put `path` where it is; empty when only root, the owner of "/", `user` and `guest` can
// have. Each folder and link on the way, and `path` itself, must belong to one of them. No folder may be writable for
// all users, except one with the sticky bit whose entry belongs to root or `user`: `guest` counts as a stranger there,
// since anybody could have taken the name first. Any thread.
std::string why_strangers(const std::string& path, uid_t user, uid_t guest);

// Why users other than root, the owner of "/" and our effective user can put something into `folder`, with a sticky bit
// or without; empty when they cannot, and when there is no such folder. Any thread.
std::string why_open_to_strangers(const std::string& folder);
