// The daemon's exception types: failures that end start-up or a reload. Thrown by value, caught as std::exception.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>

// A script or a plug-in that cannot be loaded or run.
class except_base : public std::exception {
 public:
  // printf-style; the message is cut after 10239 characters.
  explicit except_base(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    format_message(format, arguments);
    va_end(arguments);
  }
  const char* what() const noexcept override { return message.c_str(); }

 protected:
  except_base() = default;
  void format_message(const char* format, va_list arguments) __attribute__((format(printf, 2, 0))) {
    char buffer[10240];
    if (vsnprintf(buffer, sizeof(buffer), format, arguments) >= 0) message = buffer;
  }

 private:
  std::string message;
};

// A configuration error.
class except_conf : public except_base {
 public:
  explicit except_conf(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    format_message(format, arguments);
    va_end(arguments);
  }
};
