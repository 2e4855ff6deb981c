// The log's lines on their way to the system's log. The C library's syslog(3) waits for a log daemon that has stopped
// reading for as long as that takes, and does not tell what it could not send.
#pragma once

#include <string_view>

#include "device/host/log_patience.h"

// Plain memory without a destructor. Not thread-safe: LogTarget guards it.
class LogSyslog {
 public:
  // Connects to the log daemon, if there is one. `facility` is the number of a syslog facility.
  void open(int facility);
  void close();
  bool is_open() const { return is_wanted; }

  // Sends one line, without its end, of program `program` with the log's level `level`. Connects again when the log
  // daemon was restarted. Returns false when nobody took it. Waits as LogStream::write does.
  bool write(int level, const char* program, std::string_view line, LogPatience& patience);

 private:
  bool connect();
  void disconnect();
  bool send_record(std::string_view record, LogPatience& patience);

  bool is_wanted = false;
  bool is_stalled = false;
  bool is_stream = false;  // the log daemon takes no datagrams: a zero byte ends each record
  int facility_bits = 0;
  int fd = -1;
};
