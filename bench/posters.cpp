#include "bench/posters.h"

#include <sys/socket.h>

#include <stdexcept>

#include "bench/loop_here.h"
#include "bench/peer_process.h"
#include "device/event_queue.h"
#include "device/event_source.h"
#include "listener/client_protocol.h"
#include "util/text.h"
#include "util/unix_socket.h"

Descriptor connect_poster() {
  return connect_poster(bench_root() + kEventSocketPath);
}

Descriptor connect_poster(const std::string& path) {
  Descriptor fd(unix_stream_socket());
  if (unix_connect(fd.get(), path) != 0) throw std::runtime_error("failed to connect to " + path);
  return fd;
}

void post_lines(int poster, int count, int batch) {
  std::string lines;
  for (int i = 0; i < batch; ++i) lines += kEventLine;
  for (int i = 0; i < count; i += batch) send_whole(poster, lines.data(), lines.size());
}

std::string event_packet() {
  event_item event{1, {0, 0}, "", kEventInfo};
  copy_text(event.type_name, sizeof(event.type_name), kEventName);
  const EventPacket packet(event);
  return {packet.data(), packet.size()};
}

BareSocket::BareSocket() : path(bench_root() + "/bare.sock"), listening(unix_stream_socket()) {
  unlink(path.c_str());
  if (unix_bind(listening.get(), path) != 0 || listen(listening.get(), 8) != 0) {
    throw std::runtime_error("failed to listen on " + path);
  }
}

Descriptor BareSocket::accept_poster() const {
  return Descriptor(accept(listening.get(), nullptr, nullptr));
}
