#include "script/script_stop.h"

#include "device/log.h"
#include "script/manager_script.h"
#include "util/clock.h"

namespace {

// Between two looks. A look costs a few ns: at this distance it does not show. A loop whose every round waits in C
// has few instructions a round: sleep() looks by itself.
constexpr int kInstructions = 50;

constexpr int kAskEveryMs = 100;

// Between two errors: whoever catches one to report it has this long, and what the pass has still to run.
constexpr int kRespiteMs = 500;

}  // namespace

void ScriptStop::watch(lua_State* L) {
  lua_sethook(L, look, LUA_MASKCOUNT, kInstructions);
}

void ScriptStop::check(lua_State* L) {
  lua_Debug caller{};
  // Not just level 1: in pcall(sleep, ms) that is pcall, which has no line.
  for (int level = 1; lua_getstack(L, level, &caller) == 1; ++level) {
    lua_getinfo(L, "l", &caller);
    if (caller.currentline >= 0) return look(L, &caller);
  }
}

void ScriptStop::raise_after(int patience) {
  said = RateLimit();
  patience_ms = 0;
  deadline_ms = steady_ms() + patience;
}

void ScriptStop::raise_once_wanted(int patience) {
  said = RateLimit();
  patience_ms = patience;
  deadline_ms = steady_ms();
}

void ScriptStop::forget() {
  deadline_ms = kNever;
}

bool ScriptStop::is_due() const {
  const int64_t deadline = deadline_ms.load(std::memory_order_acquire);
  return deadline != kNever && steady_ms() >= deadline;
}

void ScriptStop::ask() {
  const bool is_wanted = wanted();
  deadline_ms = steady_ms() + (is_wanted ? patience_ms : kAskEveryMs);
  if (is_wanted) patience_ms = 0;
}

// A script that catches the error meets it again and again.
void ScriptStop::say_stopped(const lua_Debug& at) {
  const auto left_out = said.allow();
  if (!left_out) return;
  const event_item* const event = g_mscript->current_event;
  elog(1, "mscript: stopped a script that does not return: event(%s), tag[%s], %s:%d%s",
       event == nullptr ? "none" : event->type_name, g_mscript->current_tag_name().c_str(), at.short_src,
       at.currentline, left_out->text);
}

void ScriptStop::look(lua_State* L, lua_Debug* at) {
  ScriptStop& stop = g_mscript->stop;
  if (!stop.is_due()) return;
  if (stop.patience_ms != 0) return stop.ask();
  stop.deadline_ms = steady_ms() + kRespiteMs;
  lua_getinfo(L, "Sl", at);
  stop.say_stopped(*at);
  lua_pushfstring(L, "%s:%d: stopped, the daemon is to end", at->short_src, at->currentline);
  lua_error(L);
}
