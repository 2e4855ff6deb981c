// `zelvctl status` on one screen.
#pragma once

#include <string>

#include "ctl/inspect/answers.h"
#include "ctl/inspect/diagnosis.h"

// The verdict, and what deserves a look.
std::string verdict_lines(const Diagnosis& diagnosis);

// Lines of text: the verdict first, then what deserves a look, then the figures, each with a word in front of it. Long
// lists are cut. Safe for a terminal, whatever names the daemon has met.
std::string status_screen(const Answers& answers, const Diagnosis& diagnosis);
