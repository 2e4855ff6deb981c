// `zelvctl scripts`: files, handlers, timers and tasks in columns.
#pragma once

#include <string>
#include <vector>

#include "ctl/control_client.h"

// Lines of text. Files are in load order, handlers by type, timers and tasks by when they are due: of these, the first
// ones, and how many each tag has. Safe for a terminal.
std::string script_list(const std::vector<AnswerLine>& answer);
