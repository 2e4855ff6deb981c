// The daemon's exception types: failures that end start-up or a reload. Thrown by value, caught as std::exception.
#pragma once

#include <cstdarg>
#include <exception>
#include <string>

// A script or a plug-in that cannot be loaded or run.
class except_base : public std::exception {
 public:
  // printf-style; the message is cut after 10239 characters.
  explicit except_base(const char* format, ...) __attribute__((format(printf, 2, 3)));
  const char* what() const noexcept override { return message.c_str(); }

 protected:
  except_base() = default;
  void format_message(const char* format, va_list arguments);

 private:
  std::string message;
};

// A configuration error.
class except_conf : public except_base {
 public:
  explicit except_conf(const char* format, ...) __attribute__((format(printf, 2, 3)));
};
