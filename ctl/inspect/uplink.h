// `zelvctl uplink`: how the connection to the broker is.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "ctl/control_client.h"
#include "ctl/inspect/diagnosis.h"

// What the uplink below `root` (DEVICE_ROOT, or empty) answers to `stats`; all of it takes at most `limit_ms`. Throws
// Failure(Exit::unreachable) when none answers.
std::vector<AnswerLine> ask_uplink(const std::string& root, int limit_ms = kAnswerLimitMs);

// The trouble is why nothing reaches the broker, the notes what else deserves a look.
Diagnosis diagnose_uplink(const std::vector<AnswerLine>& answer);

// The answer as a person reads it.
std::string uplink_screen(const std::vector<AnswerLine>& answer);

// Writes both to `out`, or with `json` one object, with the kinds and keys of docs/uplink.md. Also writes when no
// uplink answers. Throws when there is trouble; it is written already then, and the failure's text is empty.
void print_uplink(const std::string& root, bool json, FILE* out);
