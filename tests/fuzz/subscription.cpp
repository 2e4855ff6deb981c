// What a client sends, taken apart as the event_recv thread does it, in a client's own buffer. Input: the size of the
// pieces (one byte; from 128 on zeros are put in the middle, so that the longest packet can come), then the bytes.
#include "listener/client_buffer.h"
#include "listener/client_protocol.h"
#include "tests/fuzz/fuzz.h"

namespace {

// What has to be found at the front of `held`, read from the description of the packets.
PacketKind reference(const std::string& held) {
  if (held.size() < 4) return PacketKind::incomplete;
  int64_t length = 0;
  for (size_t i = 0; i < 4; ++i) length += int64_t{static_cast<unsigned char>(held[i])} << (8 * i);
  if (length == 0) return PacketKind::reset;
  if (length < 9 || length > 65024) return PacketKind::bad_length;
  if (static_cast<size_t>(length) > held.size()) return PacketKind::incomplete;
  return held[static_cast<size_t>(length) - 1] == '\0' ? PacketKind::subscription : PacketKind::bad_end;
}

void take_packets(ClientBuffer& buffer) {
  for (;;) {
    const std::string held(buffer.data(), buffer.size());
    const Exact exact(held);
    const ClientPacket packet = next_packet(exact.data.get(), held.size());
    HOLDS(packet.kind == reference(held));
    if (packet.kind == PacketKind::incomplete) return;
    if (packet.kind != PacketKind::subscription) return buffer.clear();
    const auto length = static_cast<size_t>(packet.length);
    HOLDS(packet.type_string == exact.data.get() + 8 && length <= held.size());
    HOLDS(strlen(packet.type_string) < length - 8);
    buffer.consume(length);
    HOLDS(std::string(buffer.data(), buffer.size()) == held.substr(length));
  }
}

}  // namespace

void fuzz(size_t choice, std::string input) {
  if (choice >= 128) input.insert(input.size() / 2, 64900 + choice, '\0');
  const size_t piece_size = choice >= 128 ? 512 : choice + 1;
  ClientMemory memory(1 << 20);
  ClientBuffer buffer(memory);
  for (size_t fed = 0; fed < input.size(); fed += piece_size) {
    const std::string piece = input.substr(fed, piece_size);
    HOLDS(buffer.append(piece.data(), piece.size()));
    take_packets(buffer);
    HOLDS(buffer.size() < 65024);
    buffer.tidy();
  }
}
