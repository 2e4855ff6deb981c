#include "ctl/findings.h"

#include "util/safe_text.h"
#include "util/text.h"

namespace {

constexpr char kNotLookedFor[] = "globals that nothing defines were not looked for";

}  // namespace

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

void Findings::set_unlooked(const std::string& reason) {
  if (strict) return warn(reason, kNotLookedFor);
  unlooked = reason;
}

void Findings::tell_unlooked() const {
  if (!unlooked.empty()) fprintf(out, "%s: %s\n", unlooked.c_str(), kNotLookedFor);
}

std::string counted(int number, const char* thing) {
  return sstr("%d %s%s", number, thing, number == 1 ? "" : "s");
}
