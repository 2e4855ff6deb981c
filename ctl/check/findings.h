// What a check finds: each fault and warning is written when it is found, and counted.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

// Whether somebody looked for uses of globals that nothing defines.
enum class Globals {
  checked,
  no_tool,  // luacheck is not installed
  skipped,  // there are faults, or luacheck has failed
};

class Findings {
 public:
  // Writes to `output`. With `are_strict`, warnings count as faults.
  Findings(FILE* output, bool are_strict) : out(output), strict(are_strict) {}

  // `text` starts with the file, and the line where there is one: "FILE:LINE: MESSAGE".
  void fault(const std::string& text);

  // Writes "PLACE: warning: TEXT"; `place` is the file, and the line where there is one.
  void warn(const std::string& place, const std::string& text);

  // With Globals::no_tool and strict, this is a warning too.
  void set_globals(Globals how);

  bool has_faults() const { return faults > 0; }

  // False when there are faults, or warnings that count as faults.
  bool passed() const { return faults == 0 && (warnings == 0 || !strict); }

  // "2 faults, 1 warning"; a count of 0 is left out.
  std::string counts() const;

  // "undefined globals were not checked", with the reason when it is a missing luacheck; empty when they were.
  std::string globals_text() const;

 private:
  FILE* const out;
  const bool strict;
  Globals globals = Globals::skipped;
  size_t faults = 0;
  size_t warnings = 0;
};
