// `zelvctl post`: puts events into the daemon's queue, from arguments or from lines of text.
#pragma once

#include <string>
#include <vector>

#include "ctl/event_connection.h"

// The line for one event, with its line feed. `fields` are "FIELD=VALUE" arguments; the first "=" of each ends the
// field's name. Throws Failure(Exit::usage) for what a line or a list of fields cannot carry, and unless `quit_allowed`
// for the type that ends the daemon's event loop.
std::string line_of_event(const std::string& type, const std::string& name, const std::vector<std::string>& fields,
                          bool quit_allowed);

// Sends the lines of descriptor `input` until it ends; a last line without a line feed counts. Checks every line before
// it is sent. Returns when the daemon has taken in all lines. Stops at the first bad one: waits until the daemon has
// taken in the lines before it, and throws Failure(Exit::usage) with its number. Holds one block of input at a time.
void post_lines(int input, bool quit_allowed, EventConnection& connection);
