// `zelvctl post`: events into the daemon's queue, from arguments or from lines of text.
#pragma once

#include <string>
#include <vector>

#include "ctl/event_connection.h"

// The line, with its line feed, for one event. `fields` are "FIELD=VALUE" arguments; the first "=" of each ends the
// field's name. Throws Failure(Exit::usage) for what the line or the list of fields cannot carry, and for the type that
// ends the daemon's event loop unless `quit_allowed`.
std::string event_line(const std::string& type, const std::string& name, const std::vector<std::string>& fields,
                       bool quit_allowed);

// Sends the lines that come out of descriptor `input` until it ends; a last line without a line feed counts. Every line
// is checked before it is sent. Returns when the daemon has taken in all of them. At the first bad line, what came
// before it has been taken in, and Failure(Exit::usage) is thrown with the line's number. Holds one block of input,
// however much comes.
void post_lines(int input, bool quit_allowed, EventConnection& connection);
