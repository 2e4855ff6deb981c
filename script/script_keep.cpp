#include "script/script_keep.h"

#include <utility>
#include <vector>

#include "device/log.h"
#include "script/keep_text.h"
#include "script/manager_script.h"
#include "script/trial_guards.h"
#include "util/lua_binding.h"

namespace {

int look(lua_State* L) {
  g_mscript->keep.write_changed(L);
  return 0;
}

void start_looks(lua_State* L) {
  if (g_mscript->timers.size() >= ScriptTimers::kMost) throw ScriptError("too many timers");
  lua_pushcfunction(L, api<look>);
  const int callback = luaL_ref(L, LUA_REGISTRYINDEX);
  constexpr int64_t kInterval = int64_t{ScriptKeep::kIntervalS} * 1000000;
  const int64_t now = g_mscript->clock.steady() * 1000;
  g_mscript->timers.add(ScriptAlarm{now + kInterval, kInterval, {callback, LUA_REFNIL, "keep", 0}});
}

// keep() is cut into these, so that no object with a destructor is alive while Lua can raise.

// Reads the file of `name` into text[kKeptTextMax]. Clears *writable when a file stays there that must not be replaced.
bool read_file(const char* name, char* text, size_t* size, bool* writable) {
  std::string reason;
  const KeptFile result = read_kept(name, text, kKeptTextMax, size, reason);
  if (result == KeptFile::foreign && !in_trial()) *writable = put_aside(name, reason);
  if (result == KeptFile::unreadable) {
    *writable = false;
    elog(1, "mscript: keep: failed to read %s: %s; '%s' is not written until the next start", keep_path(name).c_str(),
         reason.c_str(), name);
  }
  return result == KeptFile::whole;
}

// Why the table on top of the stack cannot be kept, or empty.
std::string why_not_kept(lua_State* L) {
  try {
    kept_text(L, -1);
    return "";
  } catch (const ScriptError& error) {
    return error.what();
  }
}

// Pushes the table that text[size] describes. Returns false, and pushes nothing, when it describes none.
bool push_table(lua_State* L, const char* name, char* text, size_t size, bool* writable) {
  int line = 0;
  const char* const error = push_kept_table(L, text, size, &line);
  std::string reason = error != nullptr ? "line " + std::to_string(line) + ": " + error : why_not_kept(L);
  if (reason.empty()) return true;
  if (error == nullptr) lua_pop(L, 1);
  if (!in_trial()) *writable = put_aside(name, reason);
  return false;
}

void check_default(lua_State* L) {
  const std::string reason = why_not_kept(L);
  if (!reason.empty()) throw ArgumentError(2, reason);
}

// Enters the table on top of the stack.
void enter(lua_State* L, const char* name, int ref, bool writable) {
  g_mscript->keep.add(name, {ref, kept_text(L, -1), "", writable});
}

// Makes and enters the table of `name`; a default table, or nil, is at index 2.
void make_table(lua_State* L, const char* name) {
  if (g_mscript->keep.size() >= ScriptKeep::kMost) throw ScriptError("too many names");
  if (lua_checkstack(L, kKeptStack) == 0) throw ScriptError("stack overflow");
  auto* const text = static_cast<char*>(lua_newuserdata(L, kKeptTextMax));
  size_t size = 0;
  bool writable = true;
  if (!read_file(name, text, &size, &writable) || !push_table(L, name, text, size, &writable)) {
    lua_isnil(L, 2) ? lua_newtable(L) : lua_pushvalue(L, 2);
    check_default(L);
  }
  if (g_mscript->keep.size() == 0) start_looks(L);
  lua_pushvalue(L, -1);
  const int ref = luaL_ref(L, LUA_REGISTRYINDEX);
  enter(L, name, ref, writable);
}

}  // namespace

int keep(lua_State* L) {
  lua_settop(L, 2);
  const char* const name = text_arg(L, 1);
  if (const char* const error = check_keep_name(bytes_arg(L, 1))) throw ArgumentError(1, error);
  if (!lua_istable(L, 2) && !lua_isnil(L, 2)) {
    throw ArgumentError(2, std::string("table expected, got ") + luaL_typename(L, 2));
  }
  const ScriptKeep& kept = g_mscript->keep;
  if (kept.find(name) == nullptr) make_table(L, name);
  const int ref = kept.find(name)->ref;
  lua_rawgeti(L, LUA_REGISTRYINDEX, ref);
  return 1;
}

const ScriptKeep::Kept* ScriptKeep::find(const std::string& name) const {
  const auto found = tables.find(name);
  return found == tables.end() ? nullptr : &found->second;
}

// What could not be written counts as never written.
void ScriptKeep::take_results() {
  for (const KeepWriter::Job& job : writer.take_done()) {
    if (job.failed) tables[job.name].in_file.clear();
  }
}

void ScriptKeep::write_changed(lua_State* L) {
  if (writer.is_busy() || in_trial() || lua_checkstack(L, kKeptStack) == 0) return;
  take_results();
  std::vector<KeepWriter::Job> round;
  for (auto& [name, kept] : tables) {
    if (!kept.writable) continue;
    std::string complaint;
    lua_rawgeti(L, LUA_REGISTRYINDEX, kept.ref);
    try {
      std::string text = kept_text(L, -1);
      if (text != kept.in_file) {
        kept.in_file = text;
        round.push_back({name, std::move(text)});
      }
    } catch (const ScriptError& error) {
      complaint = error.what();
    }
    lua_settop(L, 0);
    if (complaint != kept.said && !complaint.empty()) {
      elog(1, "mscript: keep: '%s' is not written: %s", name.c_str(), complaint.c_str());
    }
    kept.said = complaint;
  }
  if (!round.empty()) writer.start(std::move(round));
}

void ScriptKeep::finish(lua_State* L) {
  if (tables.empty()) return;
  take_results();
  std::string error;
  if (!protect(L, error, [this](lua_State* state) { write_changed(state); })) {
    elog(1, "mscript: keep: failed to write at the end: %s", error.c_str());
  }
  writer.take_done();
  tables.clear();
}
