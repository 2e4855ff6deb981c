// One plug-in: its library, its entry points, and the calls into it.
//
// The hard part: nothing of a plug-in may be left when its library is closed, neither an exception object, whose class
// may be the plug-in's own, nor a Lua frame. So every failure here leaves the plug-in as a plain text.
#pragma once

#include <sys/types.h>

#include <lua.hpp>
#include <string>

// What sets the two kinds apart.
struct PluginKind {
  const char* tag;   // in file names and commands
  const char* name;  // in log lines
  const char* init;  // names of the entry points
  const char* prepare_cleanup;
  const char* cleanup;
  const char* open_error;  // printf format; may name the file with %s
  bool has_lua;            // its init receives the Lua state, its prepare_cleanup may use it
};

extern const PluginKind kEventSource;
extern const PluginKind kEventAction;

struct LoadedPlugin {
  using EntryPoint = void (*)();

  const PluginKind* kind = nullptr;
  std::string path;                      // as passed to dlopen
  void* handle = nullptr;                // null when closed
  dev_t device = 0;                      // of the file, once it has been opened
  ino_t inode = 0;                       // of the file; 0: unknown
  EntryPoint init = nullptr;             // int (*)(), or int (*)(lua_State*) when the kind has Lua
  EntryPoint prepare_cleanup = nullptr;  // may be null
  EntryPoint cleanup = nullptr;
};

// All of these are called on the main thread.

// Opens the library `path`, which the loader looks up in its own search path. Throws except_base.
void open_plugin(LoadedPlugin& plugin);

// Looks up the entry points of an open plug-in and calls its init, with `L` when its kind has Lua. Throws except_base,
// also for whatever init throws or raises.
void init_plugin(LoadedPlugin& plugin, lua_State* L);

// Calls prepare_cleanup when the plug-in is open and has one. What it throws or raises is logged.
void prepare_plugin(LoadedPlugin& plugin, lua_State* L);

// Calls cleanup when it was found, closes the library and clears the record; does nothing when it is not open. An
// exception of cleanup, and a library that cannot be closed, are logged.
void unload_plugin(LoadedPlugin& plugin);
