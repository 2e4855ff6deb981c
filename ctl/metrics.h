// `zelvctl metrics`: what the running daemon counts, for Prometheus. docs/metrics.md lists the metrics.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "ctl/control_client.h"

// The answer to the request `stats` in the Prometheus text format 0.0.4.
std::string metrics_text(const std::vector<AnswerLine>& stats);

// Writes the metrics of the daemon below `root` (DEVICE_ROOT, or empty) to `out`, or into `textfile` if that is not
// empty, which is replaced as a whole. When no daemon answers, writes only that, and throws Failure(Exit::unreachable);
// so it does, writing nothing, when one refuses to answer, since all places at its control socket are taken.
void print_metrics(const std::string& root, const std::string& textfile, FILE* out);
