#include "bench/loop_here.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bench/figures.h"
#include "device/event_queue.h"
#include "device/event_source.h"
#include "script/event_loop.h"
#include "util/lua_binding.h"
#include "util/text.h"

LoopHere::LoopHere(const std::string& lua) {
  script.init();
  g_event_ring = &ring;
  run_lua(lua);
}

LoopHere::~LoopHere() {
  script.cleanup();
  g_event_ring = nullptr;
}

void LoopHere::add_function(const char* name, lua_CFunction function) {
  const LuaTurn turn(script.gate);
  lua_register(script.lua_state, name, function);
}

void LoopHere::run_lua(const std::string& lua) {
  const LuaTurn turn(script.gate);
  script.dispatch.set_handler_tag("bench");
  if (clua_run_string(script.lua_state, lua.c_str()) < 0) throw std::runtime_error(clua_error_text(script.lua_state));
  script.dispatch.set_handler_tag("");
}

double LoopHere::run_to_quit() {
  script.running = true;
  const Stopwatch watch;
  event_loop(script);
  return watch.seconds();
}

void LoopHere::start() {
  if (script.start_thread() < 0) throw std::runtime_error("no thread for the event loop");
}

void LoopHere::stop() {
  post(EVENT_TYPE_QUIT, "quit");
  script.stop_thread();
}

void post(int type, const char* name, const char* info) {
  if (event_post(type, name, info) < 0) throw std::runtime_error("the queue refuses an event");
}

std::string handler_of(const char* type_name, const char* body) {
  return sstr("es_%s = { list_func = { { 'bench', function(arg) %s end, 'argument' } } }", type_name, body);
}

std::string bench_root() {
  const char* const root = getenv("DEVICE_ROOT");
  return root == nullptr ? "" : root;
}

void write_settings(const std::string& root, const std::string& settings) {
  const std::string folder = root + "/opt/flash/mtd4-cfg";
  std::filesystem::create_directories(folder);
  std::ofstream file(folder + "/zelvind.info");
  if (!(file << settings << std::flush)) throw std::runtime_error("failed to write the settings file");
}
