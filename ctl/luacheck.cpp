#include "ctl/luacheck.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <csignal>
#include <cstring>
#include <lua.hpp>
#include <memory>

#include "device/config_store.h"
#include "script/lua_utilities.h"
#include "script/script_api.h"
#include "util/descriptor.h"
#include "util/lua_binding.h"
#include "util/text.h"

namespace {

constexpr char kFinding[] = "accessing undefined variable";

using Arguments = std::vector<std::string>;

// The names that the daemon registers, asked of the code that does so; event_post comes with the event queue, which is
// not to be opened here. And the tables that the base scripts of every device set, which may not be among those
// checked.
Arguments api_names() {
  Arguments names = {"event_post", "config", "event_server"};
  const std::unique_ptr<lua_State, void (*)(lua_State*)> state(luaL_newstate(), lua_close);
  std::string error;
  protect(state.get(), error, [&](lua_State* L) {
    register_lua_utilities(L);
    register_script_api(L);
    econf_init(L);
    lua_settop(L, 0);
    for (lua_pushnil(L); lua_next(L, LUA_GLOBALSINDEX) != 0; lua_pop(L, 1)) {
      if (lua_type(L, -2) == LUA_TSTRING) names.emplace_back(lua_tostring(L, -2));
    }
  });
  return names;
}

// Starts a program found on PATH, with its output and its errors in a pipe. Returns its process id, or 0.
pid_t start_program(Arguments arguments, Descriptor& output) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return 0;
  output.reset(ends[0]);
  const Descriptor input(ends[1]);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDERR_FILENO);
  pid_t process = 0;
  const int error = posix_spawnp(&process, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? process : 0;
}

// "FILE:LINE:COLUMN: accessing undefined variable 'NAME'". Other lines say why luacheck failed, of a file or as a
// whole.
void add_findings(FILE* lines, Findings& findings) {
  char* line = nullptr;
  size_t room = 0;
  while (getline(&line, &room, lines) > 0) {
    const std::string text(line, strcspn(line, "\n"));
    const size_t at = text.find(kFinding);
    if (at != std::string::npos && at > 2) {
      findings.warn(text.substr(0, at - 2), text.substr(at));
    } else if (!text.empty()) {
      findings.warn("luacheck", text);
    }
  }
  free(line);
}

}  // namespace

void warn_of_unknown_globals(const std::vector<std::string>& scripts, const std::vector<std::string>& declarations,
                             Findings& findings) {
  Arguments arguments = {"luacheck", "--no-config", "--no-cache", "--no-color",      "--formatter",
                         "plain",    "--std",       "lua51",      "--allow-defined", "--only",
                         "113",      "--ignore",    "113/^es_",   "--globals"};
  for (const std::string& name : api_names()) arguments.push_back(name);
  arguments.push_back("--");
  arguments.insert(arguments.end(), scripts.begin(), scripts.end());
  arguments.insert(arguments.end(), declarations.begin(), declarations.end());
  Descriptor output;
  const pid_t process = start_program(arguments, output);
  if (process == 0) return findings.set_unlooked("luacheck is not at hand");
  const std::unique_ptr<FILE, int (*)(FILE*)> lines(fdopen(output.release(), "r"), fclose);
  if (lines != nullptr) add_findings(lines.get(), findings);
  int status = 0;
  waitpid(process, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) > 2) {
    findings.set_unlooked(sstr("luacheck has ended with status %d", WEXITSTATUS(status)));
  }
  if (WIFSIGNALED(status)) findings.warn("luacheck", sstr("ended by signal %d", WTERMSIG(status)));
}
