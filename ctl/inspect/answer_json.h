// A daemon's answer as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <vector>

#include "ctl/control_client.h"

// An object with an object for each kind of line, in the answer's order: keys and values. Kinds of which there may be
// several are arrays, with an s behind their name. Values are texts or numbers, `buckets` is an array.
nlohmann::ordered_json json_of(const std::vector<AnswerLine>& answer);
