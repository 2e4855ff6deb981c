#include "device/host/poster_places.h"

#include <unistd.h>
#include <algorithm>
#include <iterator>
#include <tuple>

#include "util/clock.h"
#include "util/unix_socket.h"

Poster& PosterPlaces::enter(int fd) {
  Poster& poster = *std::find_if(std::begin(posters), std::end(posters), [](const Poster& p) { return p.fd < 0; });
  const ucred peer = unix_peer(fd);
  poster.fd = fd;
  poster.process = peer.pid;
  poster.user = peer.uid;
  poster.since_ms = poster.heard_ms = steady_ms();
  poster.events = poster.dropped = 0;
  ++count;
  return poster;
}

void PosterPlaces::leave(Poster& poster) {
  close(poster.fd);
  poster.fd = -1;
  poster.is_leaving = poster.has_more = false;
  poster.lines.reset();
  std::string().swap(poster.unread);
  --count;
}

void PosterPlaces::leave_all() {
  for (Poster& poster : posters) {
    if (poster.fd >= 0) leave(poster);
  }
}

uint32_t PosterPlaces::list(event_poster* out, uint32_t max) const {
  const int64_t now = steady_ms();
  uint32_t number = 0;
  for (const Poster& poster : posters) {
    if (poster.fd < 0 || number == max) continue;
    out[number++] = {poster.process, poster.user,    static_cast<uint64_t>(now - poster.since_ms),
                     poster.events,  poster.dropped, poster.unread.size() + poster.lines.waiting()};
  }
  return number;
}

int PosterPlaces::of_process(const Poster& poster) const {
  const auto same = [&](const Poster& other) { return other.fd >= 0 && other.process == poster.process; };
  return static_cast<int>(std::count_if(std::begin(posters), std::end(posters), same));
}

// Counts again for each place, which takes about 50 us: acceptable for the rare case that a connection has to go.
Poster& PosterPlaces::first_to_go() {
  Poster* first = nullptr;
  std::tuple<int, int, int64_t> most;
  for (Poster& poster : posters) {
    const auto same_user = [&](const Poster& other) { return other.fd >= 0 && other.user == poster.user; };
    const int of_user = static_cast<int>(std::count_if(std::begin(posters), std::end(posters), same_user));
    const std::tuple<int, int, int64_t> claim(of_process(poster), of_user, -poster.heard_ms);
    if (first != nullptr && claim <= most) continue;
    first = &poster;
    most = claim;
  }
  return *first;
}
