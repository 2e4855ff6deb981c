// The daemon's answers to `stats`, `clients` and `scripts`, and what is made of their lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/control_client.h"

struct Answers {
  std::vector<AnswerLine> stats;
  std::vector<AnswerLine> clients;

  const AnswerLine& stat(const char* kind) const { return line_of(stats, kind); }

  // Bytes that the daemon has left out, since an answer was too long.
  uint64_t cut_bytes() const { return stat("cut").count("bytes") + line_of(clients, "cut").count("bytes"); }
};

using Lines = std::vector<const AnswerLine*>;  // they belong to an answer
using Weight = std::function<uint64_t(const AnswerLine&)>;

// The lines of `kind`, in the answer's order.
Lines lines_of(const std::vector<AnswerLine>& answer, std::string_view kind);

// Adds the events' names that an answer to `stats` or `scripts` tells: those that have come, or that have handlers.
void add_event_names(const std::vector<AnswerLine>& answer, std::set<std::string>& names);

// The lines of `kind` for which `weight` is not 0, the heaviest first.
Lines heaviest(const std::vector<AnswerLine>& answer, const char* kind, const Weight& weight);
Lines heaviest(const std::vector<AnswerLine>& answer, const char* kind, const char* key);

uint64_t sum_of(const std::vector<AnswerLine>& answer, const char* kind, const char* key);

// "a, b and 12 more": what `text` makes of the first `most` lines.
std::string listed(const Lines& lines, size_t most, const std::function<std::string(const AnswerLine&)>& text);

// The time of a call by a histogram's sum and number, in us; 0 when there was none.
uint64_t mean_us(const AnswerLine& line, const char* sum_key, uint64_t number);

// How many durations a line's `buckets` count.
uint64_t bucket_total(const AnswerLine& line);

// What the event loop does, "idle" or "in handler 'front' of door for 12.3 s, /opt/scripts/door.lua:12".
std::string loop_text(const AnswerLine& loop);

// The first line of an error, which may have a traceback behind it; safe for a terminal, and cut.
std::string first_line(const AnswerLine& line, const char* key);

// "front of door: /opt/scripts/door.lua:12: MESSAGE", an error of a script.
std::string script_error_text(const AnswerLine& error);

// What the listener tells as its address when it listens at all of them.
constexpr char kEveryAddress[] = "0.0.0.0";

// "port 5512 at 127.0.0.1, for this machine only": where the listener listens.
std::string listener_text(const AnswerLine& listener);

// "12 (10.0.0.7:4411)" or "12 (process 4411 of user 0)", a client of the listener.
std::string client_text(const AnswerLine& client);

// The lines `poster` of `stats`, one for each process: `events` and `refused` of all its connections together, the
// longest `since_s`, and `rate`: events a second, of about the last 10 s.
std::vector<AnswerLine> posters_by_process(const std::vector<AnswerLine>& stats);

// "process 812 (flood, user anna)": the program and the user as this machine knows them.
std::string poster_text(const AnswerLine& poster);
