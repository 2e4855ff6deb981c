// Another process, for the other end of what is measured: a fork with a channel between the two.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "util/descriptor.h"

// One end of the channel. A read from a peer that has ended throws; so does everything else that fails.
class Channel {
 public:
  explicit Channel(int fd = -1) : descriptor(fd) {}

  void signal();                  // "I am there"
  void wait();                    // for the other's signal
  bool wait_for(int timeout_ms);  // the same; false when it does not come in time
  void give(const std::vector<double>& values);
  std::vector<double> receive();

 private:
  Descriptor descriptor;
};

class PeerProcess {
 public:
  // Starts `body` in a forked process, which ends with it. The caller must have no other threads.
  explicit PeerProcess(const std::function<void(Channel&)>& body);
  // Waits for its end, unless end() was called; a peer that is still at work because something failed here is killed.
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  Channel& channel() { return own_end; }

  // Kills it: for one that goes on for ever.
  void end();

 private:
  Channel own_end;
  pid_t pid = 0;
};

// Sends or receives exactly `size` bytes; throws otherwise.
void send_whole(int fd, const void* bytes, size_t size);
void receive_whole(int fd, void* bytes, size_t size);
