// What can follow on an unfinished command line: for the completion of shells (packaging/completion).
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "ctl/command_line.h"

// Stands for the names of files: the shell completes these itself.
constexpr char kFiles[] = " files";

// What the last of `words`, which may be empty, can become: commands, options, or for an argument what its name asks
// for: the events' names for NAME, files for DIR and FILE. `words` are those behind "zelvctl". `event_names` is called
// with a root when it is needed. Only names of harmless characters are offered: strangers invent names, and a shell
// would run what stands in `$(...)`.
std::vector<std::string> completions(
    const std::vector<Command>& commands, const std::vector<std::string>& words,
    const std::function<std::vector<std::string>(const std::string& root)>& event_names);

// Writes the candidates to `out`, one a line, with the names that the running daemon has seen or handles. Silent about
// failures, and quick: somebody waits with a finger on the tab key.
void print_completions(const std::vector<Command>& commands, const std::vector<std::string>& words, FILE* out);
