// A device's own libraries, as small as they can be: one event, then a stop; log lines into the file $DEVICE_LOG. They
// offer nothing beyond what the daemon requires.
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct event_item {
  int type;
  int timestamp[2];
  char type_name[128];
  const char* info;
};

static struct event_item door = {1, {5, 6}, "door", "state=open"};

void* econf_open(int type, const char* file, const char* dir) {
  return type == 0 && file && dir ? &door : NULL;
}
int econf_get_int(void* handle, const char* key, int* value) {
  *value = handle && strcmp(key, "log_level") == 0 ? 3 : 0;
  return 0;
}
int econf_get_str(void* handle, const char* key, char* buffer, int size) {
  return handle && key && buffer && size ? -1 : -2;
}
void econf_close(void* handle) {
  (void)handle;
}
int econf_init(void* lua) {
  return lua != NULL;
}
void econf_cleanup(void) {}

void elog_set_level(const char* name, int level) {
  (void)name, (void)level;
}
void errlog_init(int facility, const char* name) {
  (void)facility, (void)name;
}
void elog(int level, const char* format, ...) {
  FILE* log = fopen(getenv("DEVICE_LOG"), "a");
  va_list arguments;
  va_start(arguments, format);
  fprintf(log, "%d ", level);
  vfprintf(log, format, arguments);
  va_end(arguments);
  fputc('\n', log);
  fclose(log);
}
void elogr(int level, const char* format, ...) {
  (void)level, (void)format;
}

struct event_item* event_dequeue(int timeout_ms) {
  static int calls;
  if (calls++ == 0) return &door;
  kill(getpid(), SIGTERM);
  usleep((unsigned)timeout_ms * 100);
  return NULL;
}
void event_arrange(void) {}
void event_item_free(struct event_item* item) {
  item->type = 0;
}
int helper_init(void* lua) {
  return lua != NULL;
}
void helper_cleanup(void) {}
