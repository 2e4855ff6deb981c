// `zelvctl top`: what the daemon does right now, on a terminal that is redrawn every second.
#pragma once

#include <cstdio>
#include <string>

// Shows the daemon below `root` (DEVICE_ROOT, or empty) until the user quits; waits for one that goes away. Where no
// screen can be drawn on, writes everything to `out` as plain text, every few seconds, and with `once` once and ends.
// Throws Failure(Exit::unreachable) when there is no daemon at first, and when `out` takes nothing more.
void show_top(const std::string& root, bool once, FILE* out);
