// The device's configuration store, as the daemon sees it: named files of keys with text or integer values. The
// embedded default is device/host/config_store.cpp; its file format is described in docs/configuration.md. There a
// handle holds the values as they were when the file was opened.
#pragma once

struct lua_State;
struct econf_handle;

// What econf_get_str returns when the file sets a key that restricts access, or may do so, but its value cannot be
// read.
constexpr int ECONF_DAMAGED = -2;

extern "C" {

// Opens store file `file` of directory `dir` (an absolute path; type 0 is the only one used). Returns a handle that the
// caller closes with econf_close, or null when the file cannot be opened. The embedded default takes regular files
// only, and logs the reason unless there is no file. Main thread only, like everything here.
econf_handle* econf_open(int type, const char* file, const char* dir);

// Reads the integer at `key` into *value. Negative: no such key, or no whole 32-bit integer; *value is then untouched.
int econf_get_int(econf_handle* handle, const char* key, int* value);

// Copies the text at `key`, zero-terminated, into buffer[size]. Negative: no such key, or it does not fit; buffer is
// then untouched. Where ECONF_DAMAGED is returned instead, listener_address and listener_allow let nobody in; the
// embedded default returns it for no other key.
int econf_get_str(econf_handle* handle, const char* key, char* buffer, int size);

// Closes a handle of econf_open.
void econf_close(econf_handle* handle);

// Adds the store's own functions to a fresh Lua state; called once per state, after helper_init. Negative: failed
// (logged). The embedded default adds econf_str(file, key [, default]) and econf_int(file, key [, default]) for the
// files of the daemon's own directory. A missing file or key, or for econf_int a value that is not a whole number,
// gives the default, or nil without one; a file name with a slash is a Lua error.
int econf_init(lua_State* L);

// Called when the Lua state has been closed, after helper_cleanup.
void econf_cleanup();
}
