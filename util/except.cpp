#include "util/except.h"

#include <cstdio>

void except_base::format_message(const char* format, va_list arguments) {
  char buffer[10240];
  if (vsnprintf(buffer, sizeof(buffer), format, arguments) >= 0) message = buffer;
}

except_base::except_base(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  format_message(format, arguments);
  va_end(arguments);
}

except_conf::except_conf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  format_message(format, arguments);
  va_end(arguments);
}
