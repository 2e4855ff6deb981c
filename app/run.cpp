#include "app/run.h"

#include <sys/socket.h>

#include <exception>
#include <string>

#include "app/signals.h"
#include "device/event_source.h"
#include "device/log.h"
#include "device/service.h"
#include "device/settings.h"
#include "extension/manager_extension.h"
#include "listener/manager_listener.h"
#include "script/manager_script.h"
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

// Returns false when a step failed.
bool start(Managers& managers, const Folders& folders) {
  try {
    managers.script.init();
    tell_service(SERVICE_STARTING);
    managers.extension.load(folders.plugins.c_str());
    managers.script.load_scripts(folders.scripts.c_str(), folders.external_scripts.c_str());
    managers.listener.start();
    managers.script.start_thread();
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

void reload(Managers& managers, const Folders& folders) {
  tell_service(SERVICE_RELOADING);
  elog(2, "zelvind: reloading ...");
  managers.script.reload(folders.scripts.c_str(), folders.external_scripts.c_str());
  resume_running();
  tell_service(SERVICE_RELOADED);
}

// Sleeps until a stop is asked for. g_running alone is not a stop: SIGHUP clears it too. A request is taken before it
// is carried out, so that one that comes meanwhile counts again; but once a stop is asked for, at most one more reload
// is done.
void idle(Managers& managers, const Folders& folders) {
  for (;;) {
    const bool reloading = g_reload.exchange(0) != 0;
    const bool stopping = g_stop != 0;
    write_signal_lines();  // behind the looks, so that the line of what is carried out stands before it
    if (reloading) {
      reload(managers, folders);
      if (stopping) return;
    } else if (g_running == 0 && g_stop != 0) {
      return;
    } else {
      wait_for_signal();
    }
  }
}

void stop(Managers& managers) {
  tell_service(SERVICE_STOPPING);
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
  elog_set_level("zelvind", file.number(settings::log_level));
  managers.script.collect_every = file.number(settings::collect_every);
  managers.script.coroutine_patience_ms = file.number(settings::coroutine_patience_ms);
  const Folders folders{file.text(settings::script_path, exe_dir()), file.text(settings::external_path),
                        file.text(settings::dll_path)};
  if (!start(managers, folders)) return;
  try {
    idle(managers, folders);
  } catch (const std::exception& error) {  // a reload failed
    elog(1, "zelvind: %s", error.what());
    stop_threads(managers);  // they use what is destroyed next; nothing else is cleaned up
    return;
  } catch (...) {
    stop_threads(managers);
    throw;
  }
  write_signal_lines();
  stop(managers);
}
