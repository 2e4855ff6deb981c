#include "ctl/check/findings.h"

#include "ctl/human_text.h"
#include "util/safe_text.h"

void Findings::fault(const std::string& text) {
  fprintf(out, "%s\n", escaped(text).c_str());
  ++faults;
}

void Findings::warn(const std::string& place, const std::string& text) {
  fprintf(out, "%s: warning: %s\n", escaped(place).c_str(), escaped(text).c_str());
  ++warnings;
}

void Findings::set_globals(Globals how) {
  globals = how;
  if (how == Globals::no_tool && strict) warn("zelvctl", globals_text());
}

std::string Findings::counts() const {
  std::string text = faults == 0 ? "" : number_of(faults, "fault");
  if (warnings == 0) return text;
  return text + (text.empty() ? "" : ", ") + number_of(warnings, "warning");
}

std::string Findings::globals_text() const {
  std::string text = "undefined globals were not checked";
  switch (globals) {
    case Globals::checked:
      return "";
    case Globals::no_tool:
      return text + ": luacheck is not installed";
    case Globals::skipped:
      return text;
  }
  return "";
}
