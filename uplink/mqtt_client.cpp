#include "uplink/mqtt_client.h"

#include <linux/tcp.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <system_error>

#include "util/clock.h"

namespace {
constexpr int kKeepAlive = 60;           // seconds
constexpr int64_t kHousekeeping = 5000;  // ms between looks at the keep-alive
constexpr uint32_t kWillDelay = 30;      // seconds
constexpr uint32_t kSessionExpiry = 3600;
constexpr int kMostUnflushed = 1000;
constexpr int kReceiveBuffer = 32 * 1024;  // what may wait for us, so that the read of a large packet comes to its end
constexpr int kReadsAtOnce = 100;          // then signals, the daemon and others have their turn

std::string text_of(int error) {
  return std::generic_category().message(error);
}

// MQTT 5 properties of one packet.
class Properties {
 public:
  Properties() = default;
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  ~Properties() { mosquitto_property_free_all(&list); }
  void add(int identifier, uint32_t value) { mosquitto_property_add_int32(&list, identifier, value); }
  mosquitto_property* get() const { return list; }
  void release() { list = nullptr; }

 private:
  mosquitto_property* list = nullptr;
};

}  // namespace

MqttClient::Library::Library() {
  mosquitto_lib_init();
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

MqttClient::Library::~Library() {
  mosquitto_lib_cleanup();
}

void MqttClient::Destroy::operator()(mosquitto* gone) const {
  mosquitto_destroy(gone);
}

void MqttClient::connect(const UplinkSettings& settings, const std::string& address, const Wishes& wishes) {
  if (!set_up(settings, wishes)) return;
  const int code = mosquitto_connect_async(client.get(), address.c_str(), settings.port, kKeepAlive);
  if (code != MOSQ_ERR_SUCCESS) fail(reason_of(code, errno));
  setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof(kReceiveBuffer));
}

bool MqttClient::set_up(const UplinkSettings& settings, const Wishes& wishes) {
  mqtt5 = wishes.mqtt5;
  housekeeping = steady_ms() + kHousekeeping;
  if (tls != nullptr) tls->forget();
  client.reset(mosquitto_new(settings.device.c_str(), !wishes.keeps_session || wishes.begins_anew, this));
  if (!client) return fail("failed to make a client: " + text_of(errno));
  mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION, mqtt5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
  mosquitto_int_option(client.get(), MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_max_inflight_messages_set(client.get(), kMostInFlight);
  if (tls != nullptr) {
    mosquitto_void_option(client.get(), MOSQ_OPT_SSL_CTX, tls->context());
    mosquitto_int_option(client.get(), MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
  }
  set_callbacks();
  if (!set_password(settings) || !set_will(wishes)) return false;
  keep_wishes(wishes, settings.port);
  return true;
}

void MqttClient::set_callbacks() {
  mosquitto* const fresh = client.get();
  mosquitto_connect_v5_callback_set(fresh, [](mosquitto*, void* self, int code, int, const mosquitto_property* list) {
    uint16_t receives = kMostInFlight;
    mosquitto_property_read_int16(list, MQTT_PROP_RECEIVE_MAXIMUM, &receives, false);
    static_cast<MqttClient*>(self)->on_connect(code, std::clamp(int{receives}, 1, kMostInFlight));
  });
  mosquitto_disconnect_v5_callback_set(fresh, [](mosquitto*, void* self, int code, const mosquitto_property*) {
    if (code == MOSQ_ERR_KEEPALIVE) static_cast<MqttClient*>(self)->fail("the broker does not answer pings");
    if (code >= MQTT_RC_UNSPECIFIED) static_cast<MqttClient*>(self)->fail(mosquitto_reason_string(code));
  });
  mosquitto_publish_v5_callback_set(fresh, [](mosquitto*, void* self, int token, int code, const mosquitto_property*) {
    static_cast<MqttClient*>(self)->on_published(token, code);
  });
  mosquitto_message_callback_set(fresh, [](mosquitto*, void* self, const mosquitto_message* message) {
    auto* const taker = static_cast<MqttClient*>(self);
    taker->heard = true;
    ++taker->unflushed;
    const auto size = static_cast<size_t>(message->payloadlen);
    taker->owner.on_message(message->topic, {static_cast<const char*>(message->payload), size}, message->retain);
    // The library reads on while OpenSSL holds bytes, without end when the broker is fast; this ends its turn.
    errno = EAGAIN;
  });
  mosquitto_subscribe_callback_set(fresh, [](mosquitto*, void* self, int, int count, const int* granted) {
    const auto is_refused = [](int code) { return code >= MQTT_RC_UNSPECIFIED; };
    static_cast<MqttClient*>(self)->heard = true;
    if (std::any_of(granted, granted + count, is_refused)) {
      static_cast<MqttClient*>(self)->owner.on_subscription_refused();
    }
  });
}

bool MqttClient::set_password(const UplinkSettings& settings) {
  if (settings.user.empty()) return true;
  char line[4096] = "";
  if (!settings.password_file.empty()) {
    if (const std::string why = why_unreadable(settings.password_file); !why.empty()) return fail(why);
    std::ifstream stream(settings.password_file);
    stream.getline(line, sizeof(line));
    if (stream.gcount() == 0) return fail("failed to read a password from " + settings.password_file);
  }
  std::string password = line;
  if (!password.empty() && password.back() == '\r') password.pop_back();
  const char* const given = settings.password_file.empty() ? nullptr : password.c_str();
  return mosquitto_username_pw_set(client.get(), settings.user.c_str(), given) == MOSQ_ERR_SUCCESS ||
         fail("user or password is not UTF-8");
}

bool MqttClient::set_will(const Wishes& wishes) {
  Properties delay;
  if (mqtt5) delay.add(MQTT_PROP_WILL_DELAY_INTERVAL, kWillDelay);
  const int code = mosquitto_will_set_v5(client.get(), wishes.will_topic.c_str(), static_cast<int>(wishes.will.size()),
                                         wishes.will.data(), 1, true, delay.get());
  if (code != MOSQ_ERR_SUCCESS) return fail(std::string("failed to set the will: ") + mosquitto_strerror(code));
  delay.release();
  return true;
}

// The one call that takes properties for the CONNECT packet connects and waits. Without a host it only keeps them, and
// the call that does not wait uses them.
void MqttClient::keep_wishes(const Wishes& wishes, int port) {
  if (!mqtt5) return;
  Properties list;
  list.add(MQTT_PROP_MAXIMUM_PACKET_SIZE, kLargestMessage);
  // The will is not delayed beyond the session's end.
  list.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, wishes.keeps_session ? kSessionExpiry : kWillDelay);
  mosquitto_connect_bind_v5(client.get(), nullptr, port, kKeepAlive, nullptr, list.get());
}

int MqttClient::descriptor() const {
  return client ? mosquitto_socket(client.get()) : -1;
}

short MqttClient::wanted() const {
  // The library keeps its answers for a broker that sends but does not read, and would do so without bound.
  const int reads = unflushed < kMostUnflushed ? POLLIN : 0;
  return static_cast<short>(!reached || mosquitto_want_write(client.get()) ? reads | POLLOUT : reads);
}

bool MqttClient::exchange() {
  if (!said.empty()) return false;
  pollfd now{descriptor(), wanted(), 0};
  if (poll(&now, 1, 0) < 0) now.revents = 0;
  if (!reached && now.fd >= 0) {
    if (now.revents == 0) return true;
    if (!is_connected(now.revents)) return false;
    // The library begins TLS at once, which takes the error of a connect that is refused at once.
    sockaddr peer{};
    socklen_t size = sizeof(peer);
    reached = getpeername(now.fd, &peer, &size) == 0;
    if (!reached) return fail(text_of(ECONNREFUSED));
  }
  errno = 0;
  const int code = read_and_write(now.revents);
  const int error = errno;
  return (code == MOSQ_ERR_SUCCESS && said.empty() && !is_gone()) || fail(reason_of(code, error));
}

bool MqttClient::is_connected(short happened) {
  int error = 0;
  socklen_t size = sizeof(error);
  getsockopt(descriptor(), SOL_SOCKET, SO_ERROR, &error, &size);
  reached = error == ECONNRESET || (error == 0 && (happened & POLLOUT) != 0);  // one that never was is not reset
  if (error != 0) return fail(text_of(error));
  return reached || fail("the connection was closed");
}

// What OpenSSL has decrypted already shows at no descriptor.
bool MqttClient::has_decrypted() const {
  if (is_gone() || unflushed >= kMostUnflushed) return false;
  const auto* const connection = static_cast<const SSL*>(mosquitto_ssl_get(client.get()));
  return connection != nullptr && SSL_pending(connection) > 0;
}

// Returns the library's code.
int MqttClient::read(short happened) {
  int code = MOSQ_ERR_SUCCESS;
  bool reads = (happened & ~POLLOUT) != 0 || has_decrypted();
  for (int i = 0; reads && i < kReadsAtOnce; ++i) {
    heard = false;
    errno = 0;
    code = mosquitto_loop_read(client.get(), 1);
    if (code == MOSQ_ERR_SUCCESS) look_for_flood();
    flooded = flooded || code == MOSQ_ERR_NOMEM;  // under a limit like LimitDATA=, as soon as the length is known
    reads = code == MOSQ_ERR_SUCCESS && said.empty() && has_decrypted();
  }
  return code;
}

// The library takes in a packet of any size before it tells anybody, and keeps messages with QoS 2 until the broker
// releases them. It cannot be stopped in the midst of a read, but that ends as soon as the network is slower than
// memory.
void MqttClient::look_for_flood() {
  if (heard) return silent.reset();
  tcp_info counts{};
  socklen_t size = sizeof(counts);
  if (getsockopt(descriptor(), IPPROTO_TCP, TCP_INFO, &counts, &size) != 0) return;
  if (!silent) silent = counts.tcpi_bytes_received;
  flooded = counts.tcpi_bytes_received - *silent > kLargestPacket;
  if (flooded) fail("the broker sends a packet of more than 1 MiB");
}

// Returns the library's code.
int MqttClient::read_and_write(short happened) {
  int code = read(happened);
  if (!said.empty()) return code;
  if (code == MOSQ_ERR_SUCCESS && mosquitto_want_write(client.get())) code = mosquitto_loop_write(client.get(), 1);
  if (!mosquitto_want_write(client.get())) unflushed = 0;
  if (code == MOSQ_ERR_SUCCESS && steady_ms() >= housekeeping) {
    housekeeping = steady_ms() + kHousekeeping;
    code = mosquitto_loop_misc(client.get());
  }
  return code;
}

// The first reason counts. Returns false.
bool MqttClient::fail(const std::string& reason) {
  if (said.empty()) said = reason;
  return false;
}

std::string MqttClient::reason_of(int code, int error) const {
  if (tls != nullptr && !tls->trouble().empty()) return tls->trouble();
  if (tls != nullptr && tls->is_established() && !accepted) {
    return "the broker closed the connection after the TLS handshake: it may refuse our certificate";
  }
  const bool is_lost = code == MOSQ_ERR_SUCCESS || code == MOSQ_ERR_CONN_LOST || code == MOSQ_ERR_NO_CONN;
  if (is_lost) return error == ECONNRESET ? text_of(error) : "the broker closed the connection";
  if (code != MOSQ_ERR_ERRNO) return mosquitto_strerror(code);
  return error == 0 || error == EPROTO ? "the connection broke off" : text_of(error);
}

bool MqttClient::is_closed_unanswered() const {
  const bool is_secured = tls == nullptr || (tls->is_established() && tls->trouble().empty());
  return reached && is_secured && !accepted && !answered;
}

void MqttClient::on_connect(int code, int most_in_flight) {
  heard = answered = true;
  if (code != 0) {
    refused = mqtt5 && (code == CONNACK_REFUSED_PROTOCOL_VERSION || code == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION);
    fail(mqtt5 ? mosquitto_reason_string(code) : mosquitto_connack_string(code));
    return;
  }
  accepted = true;
  owner.on_accepted(most_in_flight);
}

int MqttClient::publish(const std::string& topic, std::string_view payload, bool retain) {
  if (!said.empty()) return 0;
  int token = 0;
  const auto size = static_cast<int>(payload.size());
  int code = mosquitto_publish(client.get(), &token, topic.c_str(), size, payload.data(), 1, retain);
  if (code == MOSQ_ERR_RETAIN_NOT_SUPPORTED) {
    code = mosquitto_publish(client.get(), &token, topic.c_str(), size, payload.data(), 1, false);
  }
  switch (code) {
    case MOSQ_ERR_SUCCESS:
      return token;
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_INVAL:
      return -1;
    default:
      fail(reason_of(code, errno));
      return 0;
  }
}

void MqttClient::on_published(int token, int code) {
  heard = true;
  if (code == MQTT_RC_QUOTA_EXCEEDED) {
    fail(mosquitto_reason_string(code));
  } else {
    owner.on_answered(token, code < MQTT_RC_UNSPECIFIED ? "" : mosquitto_reason_string(code));
  }
}

void MqttClient::subscribe(const std::string& topic) {
  const int code = mosquitto_subscribe(client.get(), nullptr, topic.c_str(), 1);
  if (code != MOSQ_ERR_SUCCESS) fail("failed to subscribe " + topic + ": " + mosquitto_strerror(code));
}

bool MqttClient::covers(const std::string& subscription, const char* topic) {
  bool matches = false;
  return mosquitto_topic_matches_sub(subscription.c_str(), topic, &matches) == MOSQ_ERR_SUCCESS && matches;
}

void MqttClient::leave() {
  mosquitto_disconnect(client.get());
}
