#include "script/script_stop.h"

#include "device/log.h"
#include "script/manager_script.h"
#include "util/clock.h"

namespace {

// Between two looks. A look costs a few ns: at this distance it does not show. A loop whose every round waits in C,
// such as one around sleep(), has four instructions a round and is stopped within a dozen rounds.
constexpr int kInstructions = 50;

}  // namespace

void ScriptStop::watch(lua_State* L) {
  lua_sethook(L, look, LUA_MASKCOUNT, kInstructions);
}

void ScriptStop::raise_after(int patience_ms) {
  said = RateLimit();
  deadline_ms = steady_ms() + patience_ms;
}

bool ScriptStop::is_due() const {
  const int64_t deadline = deadline_ms.load(std::memory_order_acquire);
  return deadline != kNever && steady_ms() >= deadline;
}

// A script that catches the error meets it again and again.
void ScriptStop::say_stopped(const lua_Debug& at) {
  LeftOut left_out;
  if (!said.allow(steady_ms() / 1000, left_out)) return;
  const event_item* const event = g_mscript->current_event;
  elog(1, "mscript: stopped a script that does not return: event(%s), tag[%s], %s:%d%s",
       event == nullptr ? "none" : event->type_name, g_mscript->current_tag_name().c_str(), at.short_src,
       at.currentline, left_out.text);
}

void ScriptStop::look(lua_State* L, lua_Debug* at) {
  ScriptStop& stop = g_mscript->stop;
  if (!stop.is_due()) return;
  lua_getinfo(L, "Sl", at);
  stop.say_stopped(*at);
  lua_pushfstring(L, "%s:%d: stopped, the daemon is to end", at->short_src, at->currentline);
  lua_error(L);
}
