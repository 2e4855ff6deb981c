// `zelvctl status`, `scripts` and `log-level`: what a running daemon tells about itself.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

// Each writes to `out` what the daemon below `root` (DEVICE_ROOT, or empty) answers: text for people, or with `json`
// one object, with the kinds and keys of docs/control.md. Throws Failure(Exit::unreachable) when no daemon answers.

// Also writes when no daemon answers. A daemon that refuses to answer, since all places at its control socket are
// taken, is judged by its event socket and its state file. Throws when the daemon takes no events; what is wrong is
// written already then, and the failure's text is empty.
void print_status(const std::string& root, bool json, FILE* out);

void print_scripts(const std::string& root, bool json, FILE* out);

// Sets the log level first when `level` is given.
void print_log_level(const std::string& root, std::optional<long> level, FILE* out);
