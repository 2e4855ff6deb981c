// zelvind-uplink beside a RealDaemon, and an MQTT client of a few lines that tells what a broker has received.
#pragma once

#include <functional>
#include <utility>

#include "ctl/control_client.h"
#include "tests/cut_proxy.h"
#include "tests/real_daemon.h"
#include "uplink/uplink_status.h"
#include "util/mutex.h"

class RealUplink {
 public:
  // Nothing is started. The daemon must live longer. `settings` are lines beside the broker's address and the device.
  RealUplink(const RealDaemon& beside, int broker_port, const std::string& device, const std::string& settings)
      : daemon(beside) {
    daemon.write("etc/zelvind/uplink.info",
                 "broker = mqtt://127.0.0.1:" + std::to_string(broker_port) + "\ndevice = " + device + "\n" + settings);
  }
  ~RealUplink() {
    if (pid > 0) end(SIGKILL);
    if (testing::Test::HasFailure()) std::cerr << "--- the uplink's log\n" << log();
  }
  RealUplink(const RealUplink&) = delete;
  RealUplink& operator=(const RealUplink&) = delete;

  // `before`: commands of the shell that starts it, e.g. "ulimit -f 8; ".
  void start(const std::string& before = "") {
    starts = count("begins session");
    const std::string line = before + "DEVICE_ROOT='" + daemon.path(".") +
                             "' ELOG_TARGET='file:" + daemon.path("uplink.log") + "' exec '" ZELVIND_UPLINK "' 2>>'" +
                             daemon.path("uplink.errors") + "'";
    pid = fork();
    if (pid != 0) return;
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
    _exit(127);
  }
  // Whether it takes signals in the way of its documentation by now.
  bool has_begun() const { return count("begins session") > starts; }
  // A number or text that it tells about itself, or why it does not.
  std::string stat(const char* kind, const char* key) const {
    try {
      return line_of(ControlClient(daemon.path("."), kAnswerLimitMs, kUplinkSocketPath).ask("stats"), kind).text(key);
    } catch (const Failure& failure) {
      return failure.what();
    }
  }
  // Waits until it is connected to the broker and follows the daemon: what is posted from now on is sent.
  bool wait_until_ready() const {
    return wait_until([&] {
      return stat("uplink", "pid") == std::to_string(pid) && stat("broker", "state") == "up" &&
             stat("daemon", "state") == "following";
    });
  }
  void send_signal(int number) const { kill(pid, number); }
  // Sends the signal and waits for its end: the exit status, or 128 + the signal that has ended it.
  int end(int number = SIGTERM) {
    int status = 0;
    kill(pid, number);
    waitpid(std::exchange(pid, 0), &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  std::string log() const { return read_file(daemon.path("uplink.log")) + read_file(daemon.path("uplink.errors")); }
  size_t count(const std::string& part) const {
    const std::string text = log();
    size_t found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
    return found;
  }

 private:
  const RealDaemon& daemon;
  pid_t pid = 0;
  size_t starts = 0;  // before this one
};

// MQTT 3.1.1, subscribed with QoS 0. Once subscribed it sends the broker nothing: a killed broker then loses none of
// what it has sent here before it confirmed that to somebody else.
class MqttPeer {
 public:
  // Called by a thread of the peer's.
  using OnMessage = std::function<void(const std::string& topic, const std::string& payload)>;
  explicit MqttPeer(OnMessage on_message = nullptr) : told(std::move(on_message)) {}
  ~MqttPeer() { leave(); }
  MqttPeer(const MqttPeer&) = delete;
  MqttPeer& operator=(const MqttPeer&) = delete;

  // Connects, and subscribes to `filter` unless it is empty. False: the broker does not answer as it should.
  bool connect(int port, const std::string& client_id, const std::string& filter = "") {
    leave();
    held.clear();
    socket = loopback_connection(port);
    const timeval patience{10, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    std::string packet;
    send_packet(0x10, text("MQTT") + std::string("\x04\x02\x00\x00", 4) + text(client_id));
    if (!read_packet(packet) || packet.substr(0, 2) != std::string("\x20\x00", 2)) return false;
    if (!filter.empty()) {
      send_packet('\x82', std::string("\x00\x01", 2) + text(filter) + '\0');
      if (!read_packet(packet) || packet[0] != '\x90' || packet.back() != '\0') return false;
    }
    const timeval for_ever{};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &for_ever, sizeof(for_ever));
    reader = std::thread([this] { read_all(); });
    return true;
  }
  void leave() {
    if (!reader.joinable()) return;
    shutdown(socket.get(), SHUT_WR);  // the broker then closes, and what it has sent before is still read
    reader.join();
  }
  // With QoS 1; its confirmation is not waited for.
  void publish(const std::string& topic, const std::string& payload) {
    send_packet(0x32, text(topic) + std::string("\x00\x01", 2) + payload);
  }

 private:
  static std::string text(const std::string& bytes) {
    return {std::string{static_cast<char>(bytes.size() >> 8), static_cast<char>(bytes.size())} + bytes};
  }
  void send_packet(char kind, const std::string& body) {
    std::string packet(1, kind);
    size_t left = body.size();
    do {
      packet += static_cast<char>(left % 128 | (left >= 128 ? 128 : 0));
    } while ((left /= 128) > 0);
    packet += body;
    send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
  }
  // Gives the kind and what stands behind the length.
  bool read_packet(std::string& packet) {
    for (;;) {
      size_t size = 0;
      for (size_t at = 1; at < held.size() && at < 5; ++at) {
        size |= (static_cast<unsigned char>(held[at]) & 127U) << 7 * (at - 1);
        if ((held[at] & 128) != 0) continue;
        if (held.size() < at + 1 + size) break;
        packet = held[0] + held.substr(at + 1, size);
        held.erase(0, at + 1 + size);
        return true;
      }
      char bytes[65536];
      const ssize_t got = recv(socket.get(), bytes, sizeof(bytes), 0);
      if (got <= 0) return false;
      held.append(bytes, static_cast<size_t>(got));
    }
  }
  void read_all() {
    for (std::string packet; read_packet(packet);) {
      if ((packet[0] & 0xf0) != 0x30 || !told) continue;
      const size_t size = static_cast<unsigned char>(packet[1]) * 256U + static_cast<unsigned char>(packet[2]);
      told(packet.substr(3, size), packet.substr(3 + size));
    }
  }

  const OnMessage told;
  Descriptor socket{-1};
  std::string held;
  std::thread reader;
};

// What a broker receives under `z/`, as "TOPIC PAYLOAD". Any thread.
class MqttRecorder {
 public:
  bool connect(int port) { return peer.connect(port, "recorder", "z/#"); }
  std::string text() const {
    const MutexLock lock(mutex);
    return all;
  }
  bool wait_for(const std::string& part) const {
    return wait_until([&] { return text().find(part) != std::string::npos; });
  }

 private:
  mutable Mutex mutex;
  std::string all GUARDED_BY(mutex);
  MqttPeer peer{[this](const std::string& topic, const std::string& payload) {
    const MutexLock lock(mutex);
    all += topic + " " + payload + "\n";
  }};
};
