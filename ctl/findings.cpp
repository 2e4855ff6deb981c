#include "ctl/findings.h"

#include "util/safe_text.h"
#include "util/text.h"

void Findings::fault(const std::string& text) {
  fprintf(out, "%s\n", escaped(text).c_str());
  ++faults;
}

void Findings::warn(const std::string& place, const std::string& text) {
  fprintf(out, "%s: warning: %s\n", escaped(place).c_str(), escaped(text).c_str());
  ++warnings;
}

std::string Findings::text() const {
  const std::string text = faults == 0 ? "" : counted(faults, "fault");
  if (warnings == 0) return text;
  return text + (text.empty() ? "" : ", ") + counted(warnings, "warning");
}

void Findings::tell_unlooked() const {
  if (unlooked.empty()) return;
  fprintf(out, "%s: globals that nothing defines were not looked for\n", unlooked.c_str());
}

std::string counted(int number, const char* thing) {
  return sstr("%d %s%s", number, thing, number == 1 ? "" : "s");
}
