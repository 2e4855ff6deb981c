#include "app/run.h"

#include <sys/socket.h>

#include <algorithm>
#include <exception>
#include <sstream>
#include <string>

#include "app/control_requests.h"
#include "app/reload_requests.h"
#include "app/signals.h"
#include "control/control_server.h"
#include "control/event_ring.h"
#include "control/loop_stats.h"
#include "device/event_source.h"
#include "device/log.h"
#include "device/service.h"
#include "device/settings.h"
#include "extension/manager_extension.h"
#include "listener/manager_listener.h"
#include "script/manager_script.h"
#include "script/reload_trial.h"
#include "util/exe_dir.h"
#include "util/socket.h"

namespace {

struct Folders {
  std::string scripts;
  std::string external_scripts;
  std::string plugins;
};

// Descriptor 0 means "none" to the socket layer and the listener. When it is free, a socket takes it for good, so that
// no other one gets it.
void occupy_descriptor_0() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd > 0) sock_close(fd);
}

struct Managers {  // built in this order, destroyed in the reverse one
  ManagerScript script;
  ManagerExtension extension;
  ManagerListener listener;
};

// Destroyed before the managers, of which it tells.
struct Control {
  Control(Managers& managers, int event_memory_kib)
      : ring(static_cast<size_t>(event_memory_kib) * 1024),
        requests(managers.script, managers.listener, ring),
        server(ring, requests.commands()) {
    requests.set_server(server);
    g_event_ring = &ring;
  }
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;
  ~Control() {
    server.stop();
    g_event_ring = nullptr;
  }

  EventRing ring;
  ControlRequests requests;
  ControlServer server;
};

// Returns false when a step failed.
bool start(Managers& managers, const Folders& folders) {
  try {
    managers.script.init();
    tell_service(SERVICE_STARTING);
    enter_state("loading");
    managers.extension.load(folders.plugins.c_str());
    managers.script.load_scripts(folders.scripts.c_str(), folders.external_scripts.c_str());
    managers.listener.start();
    managers.script.start_thread();
    enter_state("ready");
  } catch (const std::exception& error) {
    elog(1, "zelvind: %s", error.what());
    return false;
  }
  elog(2, "zelvind: complete to start program");
  elog(2, "zelvind: version %s", ZELVIND_VERSION);
  return true;
}

// The listener first: that ends the waits of a forward_event in progress, which would hold up the script thread.
void stop_threads(Managers& managers) {
  managers.listener.stop();
  managers.script.stop_thread();
}

// One line, then those of the traceback.
void say_not_reloaded(const std::string& text) {
  const size_t first = std::min(text.find('\n'), text.size());
  elog(1, "zelvind: not reloaded: %s", text.substr(0, first).c_str());
  std::istringstream traceback(text.substr(first));
  for (std::string line; std::getline(traceback, line);) {
    if (!line.empty()) elog(1, "zelvind: not reloaded, %s", line.substr(line[0] == '\t' ? 1 : 0).c_str());
  }
}

// Throws when the reload itself fails. After a trial that fails, everything is as it was.
ReloadVerdict reload(Managers& managers, const Folders& folders, bool with_trial) {
  const char* const scripts = folders.scripts.c_str();
  const char* const external = folders.external_scripts.c_str();
  ReloadVerdict verdict{true, ""};
  tell_service(SERVICE_RELOADING);
  enter_state("reloading");
  if (with_trial) {
    elog(2, "zelvind: trying a reload ...");
    g_loop_stats.reloads_tried.add();
    const TrialVerdict trial = try_reload(managers.script, scripts, external);
    verdict = {trial.passed, trial.text};
  }
  if (verdict.done) {
    elog(2, "zelvind: reloading ...");
    managers.script.reload(scripts, external);
  } else {
    say_not_reloaded(verdict.text);
    g_loop_stats.reload_ended(verdict.text.c_str());
  }
  resume_running();
  enter_state("ready");
  tell_service(verdict.done ? SERVICE_RELOADED : SERVICE_RELOAD_FAILED);
  return verdict;
}

// One reload for all that ask for the same. If it ends the daemon, they are told why before.
void reload_as_asked(Managers& managers, const Folders& folders) {
  const bool with_trial = ReloadRequests::take();
  try {
    ReloadRequests::answer(reload(managers, folders, with_trial));
  } catch (const std::exception& error) {
    ReloadRequests::answer({false, std::string("the reload has ended the daemon: ") + error.what()});
    throw;
  }
}

// Sleeps until a stop is asked for. g_running alone is not a stop: SIGHUP clears it too. A request is taken before it
// is carried out, so that one that comes meanwhile counts again; but once a stop is asked for, at most one more reload
// is done.
void idle(Managers& managers, const Folders& folders, bool trial_at_signal) {
  const ReloadRequests taken_meanwhile;
  for (;;) {
    const bool reloading = g_reload.exchange(0) != 0;
    const bool stopping = g_stop != 0;
    write_signal_lines();  // after the looks, so that the line of what is carried out stands before it
    if (reloading) {
      reload(managers, folders, trial_at_signal);
      if (stopping) return;
      // However fast signals come, those who ask otherwise have their turn.
      if (g_stop == 0 && ReloadRequests::any()) reload_as_asked(managers, folders);
    } else if (g_running == 0 && g_stop != 0) {
      return;
    } else if (ReloadRequests::any()) {
      reload_as_asked(managers, folders);
    } else {
      wait_for_signal(managers.script.watch.look());
    }
  }
}

void begin_to_stop() {
  tell_service(SERVICE_STOPPING);
  enter_state("stopping");
}

void stop(Managers& managers) {
  begin_to_stop();
  stop_threads(managers);
  managers.script.call_cleanup();
  managers.extension.prepare_cleanup();
  managers.script.cleanup();
  managers.extension.cleanup();
  sock_exit();
}

}  // namespace

void run() {
  elog_set_level("zelvind", 1);
  errlog_init(3, "zelvind");
  open_service(event_socket_owned);
  elog(1, "Start zelvind...");
  Managers managers;
  managers.script.stop.wanted = stop_asked;
  resume_running();
  sock_init();
  occupy_descriptor_0();
  SettingsFile file;
  Control control(managers, file.number(settings::event_memory));
  control.requests.set_log_level(file.number(settings::log_level));
  control.requests.set_script_memory(file.number(settings::script_memory));
  managers.script.collect_every = file.number(settings::collect_every);
  managers.script.memory.set_limit(size_t{1024} * static_cast<size_t>(file.number(settings::script_memory)));
  managers.script.watch.warn_ms = file.number(settings::script_warn_ms);
  managers.script.watch.limit_ms = file.number(settings::script_limit_ms);
  managers.script.watch.wake = wake_run_loop;
  managers.script.coroutine_patience_ms = file.number(settings::coroutine_patience_ms);
  const Folders folders{file.text(settings::script_path, exe_dir()), file.text(settings::external_path),
                        file.text(settings::dll_path)};
  const bool trial_at_signal = file.number(settings::reload_trial) != 0;
  control.server.start();
  if (!start(managers, folders)) return begin_to_stop();
  try {
    idle(managers, folders, trial_at_signal);
  } catch (const std::exception& error) {  // a reload failed
    elog(1, "zelvind: %s", error.what());
    begin_to_stop();
    stop_threads(managers);  // they use what is destroyed next; nothing else is cleaned up
    return;
  } catch (...) {
    begin_to_stop();
    stop_threads(managers);
    throw;
  }
  write_signal_lines();
  stop(managers);
}
