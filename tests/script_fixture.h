// A real script manager on script files in a folder of their own, with a clock and events that are the test's.
#pragma once

#include <gtest/gtest.h>
#include <algorithm>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "control/loop_stats.h"
#include "device/event_queue.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/lua_binding.h"

// There is one at a time, so that C functions called from Lua find what is static. The time zone is Central Europe.
class ScriptFixture : public testing::Test {
 public:
  // One pass of the loop, without its waiting.
  static void pass(int after_ms = 0) {
    now_ms += after_ms;
    passed_ms += after_ms;
    const LuaTurn turn(g_mscript->gate);
    g_mscript->run_timers();
    event_item* const event = event_dequeue(0);
    if (event == nullptr) return g_mscript->resume_coroutines();
    event->timestamp[0] = g_mscript->clock.seconds();
    event->timestamp[1] = 250000;
    g_loop_stats.takes_event(event->type_name);
    g_mscript->dispatch_event(*event);
    event_item_free(event);
  }

  // What scripts traced since the last call, and what the script manager complained about, joined by "|".
  static constexpr char kQuitLine[] = "<1> mscript: quit event, the event loop has ended";

  static std::string traced() {
    std::string text;
    const std::vector<std::string> lines = standin::log_lines();
    for (; seen < lines.size(); ++seen) {
      const size_t trace = lines[seen].find("lua-trace: ");
      if (trace != std::string::npos) text += "|" + lines[seen].substr(trace + 11);
      if (lines[seen].rfind("<1> mscript:", 0) == 0 && lines[seen] != kQuitLine) text += "|" + lines[seen];
    }
    return under_opt(text.empty() ? text : text.substr(1));
  }

  // The level 1 lines but that of the quit event.
  static std::vector<std::string> errors() {
    std::vector<std::string> lines = standin::log_lines_with("<1>");
    lines.erase(std::remove(lines.begin(), lines.end(), kQuitLine), lines.end());
    return lines;
  }
  // The text with /opt in place of the root.
  static std::string under_opt(std::string text) {
    for (size_t at = 0; (at = text.find(root)) != std::string::npos;) text.replace(at, root.size(), "/opt");
    return text;
  }

  static inline int64_t now_ms = 0;     // of the wall clock
  static inline int64_t passed_ms = 0;  // of the steady one

 protected:
  ScriptFixture() {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    char name[] = "/tmp/zelvind-scripts-XXXXXX";
    root = mkdtemp(name);
    setenv("DEVICE_ROOT", root.c_str(), 1);
    begin();
  }
  ~ScriptFixture() override {
    script.reset();  // writes what scripts keep
    std::filesystem::remove_all(root);
  }

  void run_lua(const std::string& code) {
    const LuaTurn turn(script->gate);
    ASSERT_EQ(clua_run_string(script->lua_state, code.c_str()), 1) << clua_error_text(script->lua_state);
  }

  // A new manager, and no script files but the default ones. It is 02:59 on 10 January 2026.
  void begin() {
    script.reset();
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(path("scripts"));
    for (const char* file : {"config.lua", "server_event.lua"}) copy(file);
    now_ms = 1768010340000;
    restart();
  }

  // A new manager on the same files.
  void restart() {
    standin::reset();
    seen = 0;
    script.reset();
    script.emplace();
    const auto steady = [] { return passed_ms; };
    script->clock = {[] { return static_cast<int>(now_ms / 1000); }, [] { return static_cast<int>(now_ms); }, steady,
                     steady};
    script->init();
    lua_register(script->lua_state, "event_post", post);
    lua_register(script->lua_state, "now", now);
    run_lua("local now, time = now, os.time function os.time(...) return ... and time(...) or now() end _G.now = nil");
  }

  static void write(const std::string& file, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path(file)).parent_path());
    std::ofstream(path(file)) << text;
  }
  // Copies a file of lua/, or the files of a folder there, among the scripts.
  static void copy(const std::string& name) { std::filesystem::copy(ZELVIND_LUA_DIR "/" + name, path("scripts")); }
  static std::string path(const std::string& file) { return file.empty() ? "" : root + "/" + file; }
  void load(const char* external = "") { script->load_scripts(path("scripts").c_str(), path(external).c_str()); }
  void reload(const char* external = "") { script->reload(path("scripts").c_str(), path(external).c_str()); }

  std::optional<ManagerScript> script;

 private:
  static int post(lua_State* L) {
    standin::post(static_cast<int>(lua_tointeger(L, 1)), lua_tostring(L, 2), luaL_optstring(L, 3, ""));
    lua_pushboolean(L, 1);
    return 1;
  }

  static int now(lua_State* L) {
    const auto seconds = now_ms / 1000;
    lua_pushnumber(L, static_cast<lua_Number>(seconds));
    return 1;
  }

  static inline std::string root;
  static inline size_t seen = 0;
};
