// What the benchmarks share of posting from another process.
#pragma once

#include <string>

#include "util/descriptor.h"

// The event that is posted many times, as a line and as its parts.
constexpr char kEventName[] = "bench";
constexpr char kEventInfo[] = "door=front&state=open&count=17";
constexpr char kEventLine[] = "1 bench door=front&state=open&count=17\n";
constexpr char kQuitLine[] = "9999 quit\n";

// A connection to the event socket of the loop in this process, or of the other process that started this one.
Descriptor connect_poster();

// A connection to the Unix socket at `path`.
Descriptor connect_poster(const std::string& path);

// Sends `count` event lines, `batch` in one send, as fast as they are taken.
void post_lines(int poster, int count, int batch);

// The packet that a network client gets for it.
std::string event_packet();

// A bare Unix socket to post to, for floors.
class BareSocket {
 public:
  BareSocket();

  Descriptor accept_poster() const;

  const std::string path;

 private:
  Descriptor listening;
};
