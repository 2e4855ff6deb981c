#include "script/script_stop.h"

#include "device/log.h"
#include "script/manager_script.h"
#include "util/clock.h"

namespace {

// Between two calls of the hook, each of which costs a few ns: that often, it cannot be measured. A loop that waits in
// C executes few instructions, so sleep() checks by itself.
constexpr int kInstructions = 50;

// Between two calls of wanted().
constexpr int kAskEveryMs = 100;

}  // namespace

ScriptStop::Phase ScriptStop::next(Phase phase, bool wanted, bool over) {
  if (!over) return phase;
  switch (phase) {
    case Phase::watching:
      return wanted ? Phase::patient : Phase::watching;
    case Phase::patient:
      return Phase::raising;
    default:
      return phase;
  }
}

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

void ScriptStop::begin_patience() {
  begin(Phase::patient, patience_ms);
}

void ScriptStop::begin_to_watch() {
  begin(Phase::watching, 0);
}

void ScriptStop::begin_trial(int ms, void (*late)(const char* place)) {
  tell_late = late;
  unask(kTellPlace | kNameCall | kEndCall);  // those who asked wait in the daemon
  begin(Phase::patient, ms);
}

void ScriptStop::begin(Phase first, int ms) {
  said = RateLimit();
  over_at_ms = steady_ms() + ms;
  phase = first;
  ask(kStop);
}

void ScriptStop::end() {
  unask(kStop);
  phase = Phase::off;
}

// Enters the next phase when that is due. Returns true when an error is to be raised.
bool ScriptStop::is_time_to_raise() {
  const int64_t now = steady_ms();
  if (now < over_at_ms) return false;
  const Phase reached = next(phase, phase == Phase::watching && wanted(), true);
  phase = reached;
  over_at_ms = now + (reached == Phase::watching ? kAskEveryMs : reached == Phase::patient ? patience_ms : kRespiteMs);
  return reached == Phase::raising;
}

// A rate limit: a script that catches the error gets it again and again.
void ScriptStop::say_stopped(const lua_Debug& at) {
  const auto left_out = said.allow();
  if (!left_out) return;
  const event_item* const event = g_mscript->dispatch.current_event();
  elog(1, "mscript: stopped a script that does not return: event(%s), tag[%s], %s:%d%s",
       event == nullptr ? "none" : event->type_name, g_mscript->current_tag_name(), at.short_src, at.currentline,
       left_out->text);
}

void ScriptStop::look(lua_State* L, lua_Debug* at) {
  ScriptStop& stop = g_mscript->stop;
  const unsigned asked = stop.asked.load(std::memory_order_acquire);
  if (asked == 0) return;
  if ((asked & ~kStop) != 0) {
    lua_getinfo(L, "Sl", at);
    g_mscript->watch.look_inside(L, *at, asked);
    if ((asked & kCollect) != 0) stop.unask(kCollect), g_mscript->collect_inside(L);
  }
  if ((asked & kStop) == 0 || !stop.is_time_to_raise()) return;
  lua_getinfo(L, "Sl", at);
  if (stop.tell_late != nullptr) {
    lua_pushfstring(L, "%s:%d", at->short_src, at->currentline);
    stop.tell_late(lua_tostring(L, -1));
    lua_pushliteral(L, ": did not return");
    lua_concat(L, 2);
    lua_error(L);
  }
  stop.say_stopped(*at);
  lua_pushfstring(L, "%s:%d: stopped, the daemon is to end", at->short_src, at->currentline);
  lua_error(L);
}
