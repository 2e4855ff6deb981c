#include "ctl/check/luacheck.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "ctl/configuration.h"
#include "ctl/failure.h"
#include "script/api_names.h"
#include "util/descriptor.h"
#include "util/script_files.h"
#include "util/text.h"

namespace {

constexpr char kFinding[] = "accessing undefined variable";

using Arguments = std::vector<std::string>;

// `scripts` and `declarations` come last; only what is undefined in all of them together is reported.
Arguments luacheck_arguments(const Arguments& scripts, const Arguments& declarations) {
  Arguments arguments = {"luacheck", "--no-config", "--no-cache", "--no-color",      "--formatter",
                         "plain",    "--std",       "lua51",      "--allow-defined", "--only",
                         "113",      "--ignore",    "113/^es_",   "--globals"};
  const auto append = [&](const auto& more) { arguments.insert(arguments.end(), std::begin(more), std::end(more)); };
  append(kScriptApiNames);
  append(kScriptHelperNames);
  append(kLuaUtilityNames);
  append(kDeviceApiNames);
  append(Arguments{"config", "event_server"});  // tables of the base scripts, which may not be among those checked
  append(Arguments{"--"});
  append(scripts);
  append(declarations);
  return arguments;
}

// Starts a program found on PATH, its output and its errors in a pipe whose reading end goes to `output`. Returns 0 and
// sets `process`, or returns the reason as an errno value.
int start_program(Arguments arguments, pid_t& process, Descriptor& output) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return errno;
  output.reset(ends[0]);
  const Descriptor input(ends[1]);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDERR_FILENO);
  const int error = posix_spawnp(&process, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

// Reads "FILE:LINE:COLUMN: accessing undefined variable 'NAME'". Any other line says why luacheck failed, for a file or
// as a whole.
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

void check_globals(const std::vector<std::string>& scripts, const std::vector<std::string>& declarations,
                   Findings& findings) {
  if (findings.has_faults()) return;
  Descriptor output;
  pid_t process = 0;
  const int error = start_program(luacheck_arguments(scripts, declarations), process, output);
  if (error == ENOENT || error == EACCES) return findings.set_globals(Globals::no_tool);  // EACCES: somewhere on PATH
  if (error != 0) return findings.warn("luacheck", "failed to start: " + error_text(error));
  const std::unique_ptr<FILE, int (*)(FILE*)> lines(fdopen(output.release(), "r"), fclose);
  if (lines != nullptr) add_findings(lines.get(), findings);
  int status = 0;
  waitpid(process, &status, 0);
  if (WIFSIGNALED(status)) return findings.warn("luacheck", sstr("ended by signal %d", WTERMSIG(status)));
  if (WEXITSTATUS(status) > 2) return findings.warn("luacheck", sstr("ended with status %d", WEXITSTATUS(status)));
  findings.set_globals(Globals::checked);
}

std::vector<std::string> plugin_declarations(const std::string& plugins) {
  std::vector<std::string> files;
  if (!why_unreadable_folder(plugins).empty()) return files;  // no folder, no plug-ins
  for (const std::string& name : list_script_files(plugins)) {
    const std::string path = script_in(plugins, name);
    if (name.compare(0, 6, "libea_") == 0 && why_unreadable_file(path).empty()) files.push_back(path);
  }
  return files;
}
