#include "uplink/broker_link.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <set>
#include <system_error>
#include <utility>

#include "device/log.h"
#include "uplink/broker_tls.h"
#include "uplink/name_lookup.h"
#include "util/clock.h"
#include "util/safe_text.h"

namespace {
constexpr int kKeepAlive = 60;           // seconds
constexpr int64_t kHousekeeping = 5000;  // ms between looks at the keep-alive
constexpr uint32_t kWillDelay = 30;      // seconds
constexpr uint32_t kSessionExpiry = 3600;
constexpr uint32_t kLargestPacket = 64 * 1024;
constexpr int kMostInFlight = 20;  // the library's own queue has no bound
constexpr int64_t kKeepProtocol = int64_t{24} * 3600 * 1000;
constexpr size_t kReasonsSaid = 8;

std::string text_of(int error) {
  return std::generic_category().message(error);
}

struct Destroy {
  void operator()(mosquitto* client) const { mosquitto_destroy(client); }
};

// MQTT 5 properties of one packet.
class Properties {
 public:
  Properties() = default;
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  ~Properties() { mosquitto_property_free_all(&list); }
  Properties& add(int identifier, uint32_t value) {
    mosquitto_property_add_int32(&list, identifier, value);
    return *this;
  }
  mosquitto_property* get() const { return list; }
  void release() { list = nullptr; }

 private:
  mosquitto_property* list = nullptr;
};

// A random number from 1 to `most`: devices that lost the same broker at the same moment must not return together.
int64_t random_part(int64_t most) {
  uint64_t number = 0;
  if (getrandom(&number, sizeof(number), 0) != sizeof(number)) number = static_cast<uint64_t>(steady_ns());
  return 1 + static_cast<int64_t>(number % static_cast<uint64_t>(most));
}

// Reads the first line of `file` into `out`. Returns what is wrong, or nothing.
std::string read_password(const std::string& file, std::string& out) {
  std::ifstream stream(file);
  if (!stream) return "failed to open " + file + ": " + text_of(errno);
  char line[4096] = "";
  stream.getline(line, sizeof(line));
  if (stream.bad() || stream.gcount() == 0) return "failed to read a password from " + file;
  out = line;
  if (!out.empty() && out.back() == '\r') out.pop_back();
  return {};
}
}  // namespace

struct BrokerLink::Data {
  enum class Phase { waiting, resolving, connecting, up, closed };

  // What the public functions do.
  Data(const UplinkSettings& all_settings, Will last_will, std::vector<std::string> all_subscriptions,
       Events all_events, const Times& all_times);
  ~Data();
  Data(const Data&) = delete;
  Data& operator=(const Data&) = delete;
  int publish(const std::string& topic, std::string_view payload, bool retain);
  void close(const std::string& payload, int limit_ms);
  int descriptor() const;
  short wanted() const;
  int64_t due() const;
  void wait(int64_t until) const;
  void run();

  // A try to connect, step by step.
  void begin();
  void take_addresses();
  void connect();
  std::string set_up(mosquitto* fresh, const std::string& password) const;
  bool next_address(const std::string& reason);

  // A connection.
  void serve();
  bool is_connected(short events);
  int exchange(short events);
  void look_after_time();
  void lost(int code, int error);
  std::string reason_of(int code, int error) const;
  bool fall_back(int code);
  void end(const std::string& reason);
  void say_failure(const std::string& reason);

  // Called by the library.
  void on_connect(int code, const mosquitto_property* properties);
  void on_published(int token, int code);
  void on_message(const mosquitto_message& message);
  void subscribe();

  const UplinkSettings settings;
  const Will will;
  const std::vector<std::string> subscriptions;
  const Events events;
  const Times times;
  const std::string target;  // host and port, for lines

  NameLookup lookup;
  BrokerTls tls;
  std::unique_ptr<mosquitto, Destroy> client;  // one for each connection: the library queues nothing beyond it
  State state;

  Phase phase = Phase::waiting;
  int64_t deadline = 0;          // steady_ms(): until when this try is to succeed
  int64_t address_deadline = 0;  // and TCP with this address
  int64_t housekeeping = 0;      // and when to look at the keep-alive
  int64_t last_acknowledged = 0;
  int tries = 0;       // in a row
  bool again = false;  // reconnect() was called
  std::vector<std::string> addresses;
  size_t address = 0;
  bool reached = false;  // TCP is connected
  std::string trouble;   // what a callback has found wrong
  int limit = kMostInFlight;
  int farewell = 0;  // the token of the last message, -1 once confirmed

  int protocol = MQTT_PROTOCOL_V5;
  int64_t protocol_chosen = 0;   // steady_ms()
  bool five_has_worked = false;  // with this broker
  bool five_refused = false;     // by the connection's answer

  std::set<std::string> reasons_said;  // in this outage
};

BrokerLink::Data::Data(const UplinkSettings& all_settings, Will last_will, std::vector<std::string> all_subscriptions,
                       Events all_events, const Times& all_times)
    : settings(all_settings),
      will(std::move(last_will)),
      subscriptions(std::move(all_subscriptions)),
      events(std::move(all_events)),
      times(all_times),
      target(escaped(all_settings.host) + ":" + std::to_string(all_settings.port)) {
  state.since_ms = state.next_try_ms = steady_ms();
  mosquitto_lib_init();
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

BrokerLink::Data::~Data() {
  client.reset();
  mosquitto_lib_cleanup();
}

void BrokerLink::Data::begin() {
  const int64_t now = steady_ms();
  state.next_try_ms = 0;
  phase = Phase::resolving;
  deadline = now + times.connect;
  if (now - protocol_chosen >= kKeepProtocol) protocol = MQTT_PROTOCOL_V5;
  std::string error = settings.tls ? tls.open(settings) : std::string();
  if (error.empty()) error = lookup.start(settings.host);
  if (!error.empty()) end(error);
}

void BrokerLink::Data::take_addresses() {
  NameLookup::Result found;
  if (!lookup.take(found)) {
    if (steady_ms() >= deadline) end("failed to look up " + settings.host + ": no answer");
    return;
  }
  if (!found.error.empty()) return end(found.error);
  addresses = std::move(found.addresses);
  // An address that is reached but does not serve is not the first one again.
  const auto first = static_cast<std::ptrdiff_t>(static_cast<size_t>(tries) % addresses.size());
  std::rotate(addresses.begin(), addresses.begin() + first, addresses.end());
  address = 0;
  deadline = steady_ms() + times.connect;
  connect();
}

// Starts to connect to the current address.
void BrokerLink::Data::connect() {
  phase = Phase::connecting;
  reached = five_refused = false;
  trouble.clear();
  tls.forget();
  state.in_flight = 0;
  const int64_t now = steady_ms();
  housekeeping = now + kHousekeeping;
  address_deadline = address + 1 < addresses.size() ? now + times.connect / 4 : deadline;
  client.reset(mosquitto_new(settings.device.c_str(), subscriptions.empty(), this));
  if (!client) return end("failed to make a client: " + text_of(errno));
  std::string password;
  std::string error = settings.password_file.empty() ? std::string() : read_password(settings.password_file, password);
  if (error.empty()) error = set_up(client.get(), password);
  if (!error.empty()) return end(error);
  const int code = mosquitto_connect_async(client.get(), addresses[address].c_str(), settings.port, kKeepAlive);
  if (code != MOSQ_ERR_SUCCESS) lost(code, errno);
}

// Returns what is wrong, or nothing.
std::string BrokerLink::Data::set_up(mosquitto* fresh, const std::string& password) const {
  const bool is_five = protocol == MQTT_PROTOCOL_V5;
  mosquitto_int_option(fresh, MOSQ_OPT_PROTOCOL_VERSION, protocol);
  mosquitto_int_option(fresh, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_max_inflight_messages_set(fresh, kMostInFlight);
  if (settings.tls) mosquitto_void_option(fresh, MOSQ_OPT_SSL_CTX, tls.context());
  if (!settings.user.empty()) {
    mosquitto_username_pw_set(fresh, settings.user.c_str(),
                              settings.password_file.empty() ? nullptr : password.c_str());
  }
  mosquitto_connect_v5_callback_set(fresh, [](mosquitto*, void* self, int code, int, const mosquitto_property* list) {
    static_cast<Data*>(self)->on_connect(code, list);
  });
  mosquitto_disconnect_v5_callback_set(fresh, [](mosquitto*, void* self, int code, const mosquitto_property*) {
    if (code >= MQTT_RC_UNSPECIFIED) static_cast<Data*>(self)->trouble = mosquitto_reason_string(code);
  });
  mosquitto_publish_v5_callback_set(fresh, [](mosquitto*, void* self, int token, int code, const mosquitto_property*) {
    static_cast<Data*>(self)->on_published(token, code);
  });
  mosquitto_message_callback_set(fresh, [](mosquitto*, void* self, const mosquitto_message* message) {
    static_cast<Data*>(self)->on_message(*message);
  });
  mosquitto_subscribe_callback_set(fresh, [](mosquitto*, void* self, int, int count, const int* granted) {
    const auto refused = [](int code) { return code >= MQTT_RC_UNSPECIFIED; };
    if (std::any_of(granted, granted + count, refused)) {
      static_cast<Data*>(self)->state.last_error = "the broker refuses a subscription";
      elog(1, "uplink: the broker refuses a subscription");
    }
  });

  const std::string payload = will.payload ? will.payload() : std::string();
  Properties delay;
  if (is_five) delay.add(MQTT_PROP_WILL_DELAY_INTERVAL, kWillDelay);
  const int code = mosquitto_will_set_v5(fresh, will.topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1,
                                         true, delay.get());
  if (code != MOSQ_ERR_SUCCESS) return std::string("failed to set the will: ") + mosquitto_strerror(code);
  delay.release();

  // The one call that takes properties for the CONNECT packet connects and waits. Without a host it only keeps them,
  // and the call that does not wait uses them.
  Properties wishes;
  if (is_five) {
    wishes.add(MQTT_PROP_MAXIMUM_PACKET_SIZE, kLargestPacket);
    if (!subscriptions.empty()) wishes.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, kSessionExpiry);
    mosquitto_connect_bind_v5(fresh, nullptr, settings.port, kKeepAlive, nullptr, wishes.get());
  }
  return {};
}

bool BrokerLink::Data::next_address(const std::string& reason) {
  if (address + 1 >= addresses.size() || steady_ms() >= deadline) return false;
  say_failure(addresses[address] + ": " + reason);
  ++address;
  connect();
  return true;
}

int BrokerLink::Data::descriptor() const {
  return phase == Phase::resolving ? lookup.descriptor() : client ? mosquitto_socket(client.get()) : -1;
}

short BrokerLink::Data::wanted() const {
  const bool writes = client && phase != Phase::resolving && (!reached || mosquitto_want_write(client.get()));
  return static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN);
}

// steady_ms() of what is due next; negative: nothing.
int64_t BrokerLink::Data::due() const {
  if (phase != Phase::closed && (again || !trouble.empty())) return 0;
  switch (phase) {
    case Phase::waiting:
      return state.next_try_ms;
    case Phase::resolving:
      return deadline;
    case Phase::connecting:
      return reached ? deadline : address_deadline;
    case Phase::up:
      return state.in_flight == 0 ? housekeeping : std::min(housekeeping, last_acknowledged + times.acknowledge);
    case Phase::closed:
      break;
  }
  return -1;
}

void BrokerLink::Data::run() {
  if (phase == Phase::closed) return;
  if (std::exchange(again, false)) {
    if (phase == Phase::up) {
      mosquitto_disconnect(client.get());
      end("a reconnect was asked for");
    }
    tries = 0;
    protocol = MQTT_PROTOCOL_V5;
    five_has_worked = false;
    client.reset();
    return begin();
  }
  switch (phase) {
    case Phase::waiting:
      if (steady_ms() >= state.next_try_ms) begin();
      break;
    case Phase::resolving:
      take_addresses();
      break;
    case Phase::connecting:
    case Phase::up:
      serve();
      break;
    case Phase::closed:
      break;
  }
}

void BrokerLink::Data::serve() {
  pollfd now{mosquitto_socket(client.get()), wanted(), 0};
  if (poll(&now, 1, 0) < 0) now.revents = 0;
  if (!reached && now.revents != 0 && !is_connected(now.revents)) return;
  const int code = reached ? exchange(now.revents) : MOSQ_ERR_SUCCESS;
  const int error = errno;
  if (code != MOSQ_ERR_SUCCESS || !trouble.empty() || mosquitto_socket(client.get()) < 0) return lost(code, error);
  look_after_time();
}

// Looks how the connecting of TCP has ended; when it has failed, goes on and returns false.
bool BrokerLink::Data::is_connected(short happened) {
  int error = 0;
  socklen_t size = sizeof(error);
  getsockopt(mosquitto_socket(client.get()), SOL_SOCKET, SO_ERROR, &error, &size);
  if (error == 0 && (happened & POLLOUT) != 0) {
    reached = true;
    return true;
  }
  const std::string reason = error != 0 ? text_of(error) : "the connection was closed";
  if (!next_address(reason)) end(reason);
  return false;
}

// Reads and writes what there is, without waiting; returns the library's code.
int BrokerLink::Data::exchange(short happened) {
  int code = MOSQ_ERR_SUCCESS;
  errno = 0;
  if ((happened & ~POLLOUT) != 0) code = mosquitto_loop_read(client.get(), 1);
  // What OpenSSL has decrypted already shows at no descriptor.
  const auto* const connection = static_cast<const SSL*>(mosquitto_ssl_get(client.get()));
  while (code == MOSQ_ERR_SUCCESS && connection != nullptr && mosquitto_socket(client.get()) >= 0 &&
         SSL_pending(connection) > 0) {
    errno = 0;
    code = mosquitto_loop_read(client.get(), 1);
  }
  if (code == MOSQ_ERR_SUCCESS && mosquitto_want_write(client.get())) code = mosquitto_loop_write(client.get(), 1);
  if (code == MOSQ_ERR_SUCCESS && steady_ms() >= housekeeping) {
    housekeeping = steady_ms() + kHousekeeping;
    code = mosquitto_loop_misc(client.get());
  }
  return code;
}

void BrokerLink::Data::look_after_time() {
  const int64_t now = steady_ms();
  if (phase == Phase::connecting) {
    if (reached ? now < deadline : now < address_deadline) return;
    const std::string reason = reached ? "the broker does not answer" : text_of(ETIMEDOUT);
    if (reached || !next_address(reason)) end(reason);
  } else if (state.in_flight > 0 && now - last_acknowledged >= times.acknowledge) {
    end("the broker has acknowledged nothing for " + std::to_string(times.acknowledge / 1000) + " s");
  }
}

// The connection, or the try, has ended.
void BrokerLink::Data::lost(int code, int error) {
  const std::string reason = reason_of(code, error);
  if (phase == Phase::connecting && !reached && next_address(reason)) return;
  if (phase == Phase::connecting && fall_back(code)) return connect();
  end(reason);
}

std::string BrokerLink::Data::reason_of(int code, int error) const {
  if (!trouble.empty()) return trouble;
  if (!tls.trouble().empty()) return tls.trouble();
  switch (code) {
    case MOSQ_ERR_SUCCESS:
    case MOSQ_ERR_NO_CONN:
    case MOSQ_ERR_CONN_LOST:
      return "the broker closed the connection";
    case MOSQ_ERR_ERRNO:
      return error == 0 || error == EPROTO ? "the connection broke off" : text_of(error);
    case MOSQ_ERR_KEEPALIVE:
      return "the broker does not answer pings";
    default:
      return mosquitto_strerror(code);
  }
}

// Chooses the other protocol when that seems to be what is wrong. True: it is to be tried at once.
bool BrokerLink::Data::fall_back(int code) {
  const bool is_secured = !settings.tls || (tls.is_established() && tls.trouble().empty());
  const bool is_closed = (code == MOSQ_ERR_CONN_LOST || code == MOSQ_ERR_ERRNO) && reached && is_secured;
  if (!five_refused && (!is_closed || !trouble.empty() || five_has_worked)) return false;
  protocol = protocol == MQTT_PROTOCOL_V5 ? MQTT_PROTOCOL_V311 : MQTT_PROTOCOL_V5;
  protocol_chosen = steady_ms();
  return five_refused;
}

// Ends the try or the connection; another try follows.
void BrokerLink::Data::end(const std::string& reason) {
  const int64_t now = steady_ms();
  const bool was_up = phase == Phase::up;
  if (was_up && now - state.since_ms >= times.stable) tries = 0;
  client.reset();
  trouble.clear();
  phase = Phase::waiting;
  state.in_flight = 0;
  state.protocol = 0;
  ++state.failures;
  const int64_t longest = std::min(times.last_retry, times.first_retry << std::min(tries++, 20));
  state.next_try_ms = now + random_part(longest);
  if (was_up) {
    state.up = false;
    state.since_ms = now;
    reasons_said.clear();
  }
  say_failure(reason);
  if (was_up && events.on_down) events.on_down(state.last_error);
}

// Each reason once in an outage.
void BrokerLink::Data::say_failure(const std::string& reason) {
  state.last_error = escaped(reason);
  if (reasons_said.size() >= kReasonsSaid || !reasons_said.insert(state.last_error).second) return;
  elog(1, "uplink: no connection to %s: %s", target.c_str(), state.last_error.c_str());
}

void BrokerLink::Data::on_connect(int code, const mosquitto_property* properties) {
  const bool is_five = protocol == MQTT_PROTOCOL_V5;
  if (code != 0) {
    five_refused =
        is_five && (code == CONNACK_REFUSED_PROTOCOL_VERSION || code == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION);
    trouble = is_five ? mosquitto_reason_string(code) : mosquitto_connack_string(code);
    return;
  }
  const int64_t now = steady_ms();
  uint16_t receives = kMostInFlight;
  mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &receives, false);
  limit = std::min({kMostInFlight, settings.in_flight, int{receives}});
  elog(1, "uplink: connected to %s with MQTT %s, after %lld s without", target.c_str(), is_five ? "5" : "3.1.1",
       static_cast<long long>((now - state.since_ms) / 1000));
  phase = Phase::up;
  five_has_worked = five_has_worked || is_five;
  reasons_said.clear();
  state.up = true;
  state.since_ms = now;
  state.protocol = protocol;
  ++state.connects;
  subscribe();
  if (events.on_up) events.on_up();
}

void BrokerLink::Data::subscribe() {
  for (const std::string& topic : subscriptions) {
    const int code = mosquitto_subscribe(client.get(), nullptr, topic.c_str(), 1);
    if (code != MOSQ_ERR_SUCCESS) trouble = "failed to subscribe " + topic + ": " + mosquitto_strerror(code);
  }
}

int BrokerLink::Data::publish(const std::string& topic, std::string_view payload, bool retain) {
  if (phase != Phase::up || state.in_flight >= limit || !trouble.empty()) return kNotNow;
  int token = 0;
  const int code = mosquitto_publish(client.get(), &token, topic.c_str(), static_cast<int>(payload.size()),
                                     payload.data(), 1, retain);
  switch (code) {
    case MOSQ_ERR_SUCCESS:
      if (state.in_flight++ == 0) last_acknowledged = steady_ms();
      return token;
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_INVAL:
      ++state.refused;
      return kNever;
    case MOSQ_ERR_RETAIN_NOT_SUPPORTED:
      return retain ? publish(topic, payload, false) : kNever;
    default:
      trouble = reason_of(code, errno);
      return kNotNow;
  }
}

void BrokerLink::Data::on_published(int token, int code) {
  last_acknowledged = steady_ms();
  --state.in_flight;
  if (token == farewell) farewell = -1;
  if (code == MQTT_RC_QUOTA_EXCEEDED) {
    trouble = mosquitto_reason_string(code);
  } else if (code < MQTT_RC_UNSPECIFIED) {
    if (events.on_confirmed) events.on_confirmed(token);
  } else {
    ++state.refused;
    if (events.on_refused) events.on_refused(token, mosquitto_reason_string(code));
  }
}

void BrokerLink::Data::on_message(const mosquitto_message& message) {
  const auto covers = [&](const std::string& subscription) {
    bool matches = false;
    return mosquitto_topic_matches_sub(subscription.c_str(), message.topic, &matches) == MOSQ_ERR_SUCCESS && matches;
  };
  const bool is_wanted = std::any_of(subscriptions.begin(), subscriptions.end(), covers);
  if (!is_wanted) mosquitto_unsubscribe(client.get(), nullptr, message.topic);
  const auto size = static_cast<size_t>(message.payloadlen);
  if (!is_wanted || size > kLargestPacket) {
    ++state.ignored;
  } else if (events.on_message) {
    events.on_message(message.topic, {static_cast<const char*>(message.payload), size}, message.retain);
  }
}

// Waits until `until`, steady_ms(), for the connection to want something or to be due.
void BrokerLink::Data::wait(int64_t until) const {
  pollfd descriptor_now{descriptor(), wanted(), 0};
  poll(&descriptor_now, 1, static_cast<int>(std::max(int64_t{0}, std::min(until, due()) - steady_ms())));
}

void BrokerLink::Data::close(const std::string& payload, int limit_ms) {
  const int64_t until = steady_ms() + limit_ms;
  again = false;
  for (farewell = 0; phase == Phase::up && farewell >= 0 && steady_ms() < until; serve()) {
    if (farewell == 0) farewell = publish(will.topic, payload, true);
    if (farewell >= 0) wait(until);
  }
  if (phase == Phase::up) {
    mosquitto_disconnect(client.get());
    while (mosquitto_socket(client.get()) >= 0 && mosquitto_want_write(client.get()) && steady_ms() < until) {
      wait(until);
      if (mosquitto_loop_write(client.get(), 1) != MOSQ_ERR_SUCCESS) break;
    }
  }
  phase = Phase::closed;
  client.reset();
  state.up = false;
  state.next_try_ms = state.in_flight = state.protocol = 0;
}

BrokerLink::BrokerLink(const UplinkSettings& all_settings, Will last_will, std::vector<std::string> subscriptions,
                       Events all_events, const Times& all_times)
    : data(std::make_unique<Data>(all_settings, std::move(last_will), std::move(subscriptions), std::move(all_events),
                                  all_times)) {}

BrokerLink::~BrokerLink() = default;

int BrokerLink::publish(const std::string& topic, std::string_view payload, bool retain) {
  return data->publish(topic, payload, retain);
}

void BrokerLink::reconnect() {
  data->again = true;
}

void BrokerLink::close(const std::string& payload, int limit_ms) {
  data->close(payload, limit_ms);
}

void BrokerLink::add_descriptors(std::vector<pollfd>& out) const {
  const int descriptor = data->phase == Data::Phase::waiting ? -1 : data->descriptor();
  if (descriptor >= 0) out.push_back({descriptor, data->wanted(), 0});
}

int BrokerLink::wait_ms() const {
  const int64_t due = data->due();
  return due < 0 ? -1 : static_cast<int>(std::clamp(due - steady_ms(), int64_t{0}, int64_t{3600000}));
}

void BrokerLink::run() {
  data->run();
}

BrokerLink::State BrokerLink::state() const {
  return data->state;
}
