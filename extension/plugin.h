/* The interface of zelvind's plug-ins: the functions that a plug-in exports and those that the daemon offers it.
 *
 * A plug-in is a shared object in the folder that the configuration key "dll_path" names. Its file name says what it
 * is:
 *
 *   libesNAME.so   eSource   posts events: esource_init, esource_cleanup and optionally esource_prepare_cleanup
 *   libeaNAME.so   eAction   adds functions for scripts: eaction_init, eaction_cleanup and optionally
 *                            eaction_prepare_cleanup
 *
 * For C11 and C++17. This header includes nothing, and only names lua_State: an eAction plug-in also includes Lua 5.1's
 * own headers. docs/plugins.md describes the whole life of a plug-in and how to build one.
 *
 * Link with -Wl,-z,now. The daemon opens plug-ins lazily: without it, the first call of a function that nothing defines
 * ends the daemon; with it, such a plug-in is refused and the log says why. */
#ifndef ZELVIND_PLUGIN_H
#define ZELVIND_PLUGIN_H

/* Grows when something is added below; nothing is ever changed or removed. A plug-in that needs version N:
 *   #if ZELVIND_PLUGIN_INTERFACE < N
 *   #error "this plug-in needs a newer zelvind/plugin.h" */
#define ZELVIND_PLUGIN_INTERFACE 2

#define ZELVIND_PLUGIN_EXPORT __attribute__((visibility("default")))

typedef struct lua_State lua_State;

#ifdef __cplusplus
extern "C" {
#endif

/* What a plug-in exports. All of it runs on the daemon's main thread, each function at most once in the life of the
 * process. A C++ exception or, in eaction_init and eaction_prepare_cleanup, a Lua error that leaves one of them is
 * logged; it does not reach the daemon. */

/* Starts the source, before any script is loaded and before the eAction plug-ins. SIGHUP, SIGINT and SIGTERM are
 * blocked meanwhile, and stay blocked in the threads that it starts. Returns 0 or more, or a negative number: then the
 * failure is logged, esource_cleanup is called, the library is closed, and nothing of it is called again. What it posts
 * waits until the scripts are loaded. */
ZELVIND_PLUGIN_EXPORT int esource_init(void);

/* Optional. The daemon is about to end: no script runs any more, events that come now are not handled. */
ZELVIND_PLUGIN_EXPORT void esource_prepare_cleanup(void);

/* Ends the source. The library is closed straight afterwards: every thread of the plug-in must have ended before this
 * returns. Must also work after an esource_init that failed half-way. */
ZELVIND_PLUGIN_EXPORT void esource_cleanup(void);

/* Adds to the scripts' Lua state what the plug-in offers them, before the first script file runs. `L` is the daemon's
 * and lives until after eaction_prepare_cleanup. It may be used here, in eaction_prepare_cleanup, and in functions
 * while Lua calls them, and nowhere else; never from a thread of the plug-in. The stack is empty at the beginning and
 * what is left on it does not matter. Result and failures as with esource_init; a Lua error is a failure too. But what
 * was registered before a failure stays in the Lua state, and the code stays mapped: scripts can call it after
 * eaction_cleanup. So register last, or let the functions check for that. */
ZELVIND_PLUGIN_EXPORT int eaction_init(lua_State* L);

/* Optional. The last time that the Lua state may be used: it is closed next, and finalizers may still call what the
 * plug-in registered. */
ZELVIND_PLUGIN_EXPORT void eaction_prepare_cleanup(void);

/* Ends the plug-in, as esource_cleanup does. The Lua state is gone. */
ZELVIND_PLUGIN_EXPORT void eaction_cleanup(void);

/* What the daemon offers. All functions may be called from any thread until the cleanup function has returned. */

/* Queues one event for the scripts and the listener's clients. `type` is its code (9999 ends the daemon's event loop),
 * `type_name` 1 to 127 bytes without blanks and control characters, `info` "name=value" items joined by "&", or null
 * for none; all are copied. Returns 1 queued, -1 bad argument or queue closed, -2 queue full: try again later. Its
 * address is null on a device whose event queue takes no events from plug-ins: check it before the first call. */
__attribute__((weak)) int event_post(int type, const char* type_name, const char* info);

/* Writes one line to the daemon's log when `level` is at most the level set: 1 errors, 2 progress, 3 and more for
 * details. The text is printf-style, without a line end; begin it with the plug-in's name and ": ". */
void elog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* Since version 2. 1 in the forked copy of the daemon that tries a reload, else 0. Only scripts and the functions that
 * they call run in the copy, on one thread: those of the plug-in's threads are not there, and all its descriptors are
 * /dev/null. So a function for scripts that starts, sends or writes something does nothing there, takes no lock that
 * another thread may have held at the fork, and returns what it returns when all is well. Its address is null in an
 * older daemon, which makes no such copy. */
__attribute__((weak)) int zelvind_trial(void);

#ifdef __cplusplus
}
#endif

#endif
