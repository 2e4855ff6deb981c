#include "script/script_report.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "control/answer.h"
#include "script/manager_script.h"
#include "util/lua_binding.h"

namespace {

constexpr char kHandlerPrefix[] = "es_";
constexpr int kUpvaluesDeep = 3;
constexpr int kThreadsDeep = 2;
constexpr int kLongestMs = 50;  // of processor time: the event loop waits for the report

// Of this thread: on a busy machine the report is not the shorter for it.
int64_t processor_ms() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return int64_t{used.tv_sec} * 1000 + used.tv_nsec / 1000000;
}

using Place = char[512];

// The default scripts call what a script has given them from functions of their own: these are not its place.
bool is_default_script(const lua_Debug& info) {
  constexpr char kFile[] = "/init_base.lua";
  const size_t length = strlen(info.source);
  return length >= sizeof(kFile) && strcmp(info.source + length - (sizeof(kFile) - 1), kFile) == 0;
}

void write_place(const lua_Debug& info, int line, Place& place) {
  snprintf(place, sizeof(place), "%s:%d", info.source[0] == '@' ? info.source + 1 : info.short_src, line);
}

// Where the function on top of the stack is defined; of a default script's, where the one that it calls is: it has it
// in an upvalue. Pops it. Returns false, and gives the place of a default script, when there is none.
// NOLINTNEXTLINE(misc-no-recursion): `deep` levels below the first at most
bool find_place(lua_State* L, int deep, Place& place) {
  lua_Debug info{};
  lua_pushvalue(L, -1);
  lua_getinfo(L, ">S", &info);
  bool found = !is_default_script(info) && info.what[0] != 'C';
  if (found || (deep == kUpvaluesDeep && info.what[0] != 'C')) write_place(info, info.linedefined, place);
  for (int i = 1; !found && deep > 0 && lua_getupvalue(L, -1, i) != nullptr; ++i) {
    if (lua_isfunction(L, -1)) {
      found = find_place(L, deep - 1, place);
    } else {
      lua_pop(L, 1);
    }
  }
  lua_pop(L, 1);
  return found;
}

// Where the value on top of the stack is defined. Pops it.
void find_definition(lua_State* L, Place& place) {
  place[0] = '\0';
  if (!lua_isfunction(L, -1)) return lua_pop(L, 1);
  luaL_checkstack(L, kUpvaluesDeep + LUA_MINSTACK, "report");
  find_place(L, kUpvaluesDeep, place);
}

// The coroutine inside which a default script runs a task's function: "thread" of the table that the function on top of
// the stack has as its upvalue "self"; or null. Pops the function.
lua_State* inner_thread(lua_State* L) {
  lua_State* inner = nullptr;
  const char* name = "";
  for (int i = 1; inner == nullptr && (name = lua_getupvalue(L, -1, i)) != nullptr; ++i) {
    if (strcmp(name, "self") == 0 && lua_istable(L, -1)) {
      lua_pushliteral(L, "thread");
      lua_rawget(L, -2);
      inner = lua_tothread(L, -1);
      lua_pop(L, 1);
    }
    lua_pop(L, 1);
  }
  lua_pop(L, 1);
  return inner;
}

// Where a coroutine waits: the innermost line that is not the default scripts', or else the outermost one of these.
// Nothing is pushed on its own stack but what getinfo leaves there.
// NOLINTNEXTLINE(misc-no-recursion): `deep` levels below the first at most
bool find_wait(lua_State* L, lua_State* thread, int deep, Place& place) {
  lua_Debug info{};
  for (int level = 0; deep > 0 && lua_getstack(thread, level, &info) == 1; ++level) {
    lua_getinfo(thread, "Slf", &info);
    lua_xmove(thread, L, 1);
    lua_State* const inner = is_default_script(info) ? inner_thread(L) : (lua_pop(L, 1), nullptr);
    if (inner != nullptr && inner != thread && find_wait(L, inner, deep - 1, place)) return true;
    if (info.currentline < 0) continue;
    write_place(info, info.currentline, place);
    if (!is_default_script(info)) return true;
  }
  return false;
}

class Report {
 public:
  explicit Report(ManagerScript& the_script) : script(the_script) {}

  std::string write() {
    answer.line("round").key("n", script.scripts.round());
    for (const ScriptModule& module : script.scripts.all()) {
      answer.line("file").key("path", module.path).key("module", module.module_name);
      answer.key("round", script.scripts.round());
    }
    // Lua may raise anywhere in here, for want of memory. So nothing with a destructor lives in these functions.
    std::string error;
    protect(script.lua_state, error, [this](lua_State* L) { add_handlers(L); });
    protect(script.lua_state, error, [this](lua_State* L) { add_timers(L); });
    protect(script.lua_state, error, [this](lua_State* L) { add_tasks(L); });
    return answer.take_lines();
  }

 private:
  // Whether another line is to be made. The rest is only counted.
  bool goes_on() const { return !answer.is_full() && processor_ms() < until_ms; }

  void add_handlers(lua_State* L) {
    lua_pushnil(L);
    while (lua_next(L, LUA_GLOBALSINDEX) != 0) {
      const char* const name = lua_type(L, -2) == LUA_TSTRING ? lua_tostring(L, -2) : "";
      if (strncmp(name, kHandlerPrefix, strlen(kHandlerPrefix)) == 0 && lua_istable(L, -1)) {
        add_handlers_of(L, name + strlen(kHandlerPrefix));
      }
      lua_pop(L, 1);
    }
  }

  // The handler table is on top of the stack.
  void add_handlers_of(lua_State* L, const char* event) {
    lua_pushliteral(L, "list_func");
    lua_rawget(L, -2);
    const int count = lua_istable(L, -1) ? static_cast<int>(lua_objlen(L, -1)) : 0;
    int i = 1;
    for (; i <= count && goes_on(); ++i) {
      lua_rawgeti(L, -1, i);
      if (lua_istable(L, -1)) add_handler(L, event);
      lua_pop(L, 1);
    }
    const int left = count - i + 1;
    answer.leave_out(static_cast<size_t>(left));
    lua_pop(L, 1);
  }

  // The entry is on top of the stack.
  void add_handler(lua_State* L, const char* event) {
    lua_rawgeti(L, -1, 1);
    const char* const tag = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1) : "";
    Place place;
    lua_rawgeti(L, -2, 2);
    find_definition(L, place);
    answer.line("handler").key("event", event).key("tag", tag).key("module", module_of(place, tag));
    answer.key("where", place);
    lua_pop(L, 1);
  }

  // The module of the file that a place is in, or else the one that has the tag as its name, or "".
  const char* module_of(std::string_view place, std::string_view tag) const {
    const char* named = "";
    for (const ScriptModule& module : script.scripts.all()) {
      const size_t length = module.path.size();
      if (place.substr(0, length) == module.path && place.substr(length, 1) == ":") return module.module_name.c_str();
      if (module.module_name == tag) named = module.module_name.c_str();
    }
    return named;
  }

  void add_timers(lua_State* L) {
    const int now = script.clock.seconds();
    const int64_t now_us = script.clock.steady() * 1000;
    size_t left = script.timers.size();
    for (const auto& [number, timer] : script.timers.all_timers()) {
      if (!goes_on()) break;
      --left;
      add_timer(L, timer.call, int64_t{timer.interval} * 1000, (int64_t{timer.next_due} - now) * 1000);
    }
    for (const auto& [number, alarm] : script.timers.all_alarms()) {
      if (!goes_on()) break;
      --left;
      add_timer(L, alarm.call, alarm.interval_us / 1000, (alarm.due_us - now_us) / 1000);
    }
    answer.leave_out(left);
  }

  void add_timer(lua_State* L, const TimerCall& call, int64_t every_ms, int64_t due_in_ms) {
    Place place;
    lua_rawgeti(L, LUA_REGISTRYINDEX, call.callback_ref);
    find_definition(L, place);
    answer.line("timer").key("tag", call.tag).key("every_ms", every_ms).key("due_in_ms", due_in_ms);
    answer.key("where", place);
  }

  void add_tasks(lua_State* L) {
    const int now = script.clock.milliseconds();
    Place place;
    size_t left = script.coroutines.size();
    for (const auto& [number, coroutine] : script.coroutines.all()) {
      if (!goes_on()) break;
      --left;
      place[0] = '\0';
      find_wait(L, coroutine.thread, kThreadsDeep, place);
      answer.line("task").key("tag", coroutine.tag);
      const bool waits_for_time = coroutine.wait != INT_MAX;
      if (waits_for_time) answer.key("due_in_ms", script.coroutines.due_in_ms(coroutine, now));
      answer.key("where", place);
    }
    answer.leave_out(left);
  }

  ManagerScript& script;
  const int64_t until_ms = processor_ms() + kLongestMs;
  Answer answer;
};

}  // namespace

std::string script_report(ManagerScript& script) {
  return Report(script).write();
}
