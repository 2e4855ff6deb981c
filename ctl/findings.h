// What a check finds wrong: written as it is found, and counted.
#pragma once

#include <cstdio>
#include <string>

class Findings {
 public:
  // Writes to `output`. With `are_strict` a warning counts as much as a fault.
  Findings(FILE* output, bool are_strict) : out(output), strict(are_strict) {}

  // `text` begins with the file, and the line where there is one: "FILE:LINE: MESSAGE".
  void fault(const std::string& text);

  // "PLACE: warning: TEXT"; `place` is the file, and the line where there is one.
  void warn(const std::string& place, const std::string& text);

  // False when there are faults, or warnings that count like them.
  bool passed() const { return faults == 0 && (warnings == 0 || !strict); }

  // "2 faults, 1 warning", or what there is of it.
  std::string text() const;

  bool has_faults() const { return faults > 0; }

  // Nobody looked for globals that nothing defines, for this reason: a warning where those count.
  void set_unlooked(const std::string& reason);

  // Writes a line when nobody looked and no warning has said so.
  void tell_unlooked() const;

 private:
  FILE* const out;
  const bool strict;
  std::string unlooked;
  int faults = 0;
  int warnings = 0;
};

// "1 fault", "2 faults".
std::string counted(int number, const char* thing);
