#include "uplink/broker_link.h"

#include <sys/random.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <set>
#include <utility>

#include "device/log.h"
#include "uplink/broker_tls.h"
#include "uplink/mqtt_client.h"
#include "uplink/name_lookup.h"
#include "util/clock.h"
#include "util/rate_limit.h"
#include "util/safe_text.h"

namespace {
constexpr int64_t kKeepVersion = int64_t{24} * 3600 * 1000;
constexpr size_t kReasonsSaid = 8;

// A random number from 1 to `most`: devices that lost the same broker at the same moment must not return together.
int64_t random_part(int64_t most) {
  uint64_t number = 0;
  if (getrandom(&number, sizeof(number), GRND_NONBLOCK) != sizeof(number)) number = static_cast<uint64_t>(steady_ns());
  return 1 + static_cast<int64_t>(number % static_cast<uint64_t>(most));
}
}  // namespace

struct BrokerLink::Data : MqttClient::Owner {
  enum class Phase { waiting, resolving, connecting, up, closed };

  Data(const UplinkSettings& all_settings, Will last_will, std::vector<std::string> all_subscriptions,
       Events all_events, const Times& all_times);

  // What the public functions do.
  int publish(const std::string& topic, std::string_view payload, bool retain);
  void close(const std::string& payload, int limit_ms);
  pollfd wanted() const;
  int64_t due() const;
  void run();

  // A try to connect, step by step.
  void begin();
  void begin_again();
  void take_addresses();
  void connect();
  bool next_address(const std::string& reason);
  bool choose_version();

  // A connection.
  void serve();
  void look_after_time();
  void lost();
  void end(const std::string& reason);
  void say_failure(const std::string& reason);
  void wait(int64_t until) const;

  // Called by the client.
  void on_accepted(int most_in_flight) override;
  void on_answered(int token, const std::string& refusal) override;
  void on_subscription_refused() override;
  void on_message(const char* topic, std::string_view payload, bool retained) override;

  const UplinkSettings settings;
  const Will will;
  const std::vector<std::string> subscriptions;
  const Events events;
  const Times times;
  const std::string target;  // host and port, for lines

  MqttClient::Library library;
  NameLookup lookup;
  BrokerTls tls;
  std::optional<MqttClient> client;  // while connecting and up
  State state;

  Phase phase = Phase::waiting;
  int64_t deadline = 0;          // steady_ms(): until when this try is to succeed,
  int64_t address_deadline = 0;  // and TCP to this address is to be connected
  int tries = 0;                 // in a row
  bool again = false;            // reconnect() was called
  bool begins_anew = false;      // the next connection drops the session
  std::vector<std::string> addresses;
  size_t address = 0;
  int limit = kMostInFlight;
  std::deque<std::pair<int, int64_t>> unconfirmed;  // tokens, and steady_ms() of their publish; the oldest first
  int farewell = 0;                                 // the token of the last message, -1 once it is answered

  bool mqtt5 = true;                       // this try
  bool five_has_worked = false;            // with this broker
  std::optional<int64_t> five_refused_at;  // steady_ms()

  std::set<std::string> reasons_said;  // in this outage
  RateLimit subscription_limit;
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
}

void BrokerLink::Data::run() {
  if (phase == Phase::closed) return;
  if (std::exchange(again, false)) return begin_again();
  if (phase == Phase::waiting && steady_ms() >= state.next_try_ms) begin();
  if (phase == Phase::resolving) take_addresses();
  if (client) serve();
}

void BrokerLink::Data::begin() {
  const int64_t now = steady_ms();
  state.next_try_ms = 0;
  phase = Phase::resolving;
  deadline = now + times.connect;
  mqtt5 = !five_refused_at || now - *five_refused_at >= kKeepVersion;
  std::string error = settings.tls ? tls.open(settings) : std::string();
  if (error.empty()) error = lookup.start(settings.host);
  if (!error.empty()) end(error);
}

void BrokerLink::Data::begin_again() {
  if (phase == Phase::up) end("a reconnect was asked for");
  client.reset();
  tries = 0;
  five_refused_at.reset();
  five_has_worked = false;
  begin();
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
  phase = Phase::connecting;
  connect();
}

// Starts to connect to the current address.
void BrokerLink::Data::connect() {
  address_deadline = address + 1 < addresses.size() ? steady_ms() + times.connect / 4 : deadline;
  client.emplace(*this, settings.tls ? &tls : nullptr);
  const std::string payload = will.payload ? will.payload() : std::string();
  client->connect(settings, addresses[address], {mqtt5, !subscriptions.empty(), begins_anew, will.topic, payload});
}

// True: there is another one, and it is being tried.
bool BrokerLink::Data::next_address(const std::string& reason) {
  if (address + 1 >= addresses.size() || steady_ms() >= deadline) return false;
  say_failure(addresses[address] + ": " + reason);
  ++address;
  connect();
  return true;
}

void BrokerLink::Data::serve() {
  if (!client->exchange()) return lost();
  look_after_time();
}

void BrokerLink::Data::look_after_time() {
  const int64_t now = steady_ms();
  if (phase == Phase::connecting) {
    const bool is_reached = client->is_reached();
    if (now < (is_reached ? deadline : address_deadline)) return;
    const std::string reason = is_reached ? "the broker does not answer" : "the address does not answer";
    if (is_reached || !next_address(reason)) end(reason);
  } else if (!unconfirmed.empty() && now - unconfirmed.front().second >= times.acknowledge) {
    end("the broker has not acknowledged a message for " + std::to_string(times.acknowledge) + " ms");
  }
}

// The client has no connection, or none any more.
void BrokerLink::Data::lost() {
  const std::string reason = client->trouble();
  begins_anew = begins_anew || client->is_flooded();
  if (phase == Phase::connecting && !client->is_reached() && next_address(reason)) return;
  if (phase == Phase::connecting && choose_version()) return connect();
  end(reason);
}

// Chooses MQTT 3.1.1 when 5 seems to be what is wrong. True: it is to be tried at once.
bool BrokerLink::Data::choose_version() {
  const bool is_refused = client->is_refused_version();
  if (!mqtt5 || (!is_refused && (five_has_worked || !client->is_closed_unanswered()))) return false;
  mqtt5 = false;
  if (is_refused) five_refused_at = steady_ms();
  return true;
}

// Ends the try or the connection; another try follows.
void BrokerLink::Data::end(const std::string& reason) {
  const int64_t now = steady_ms();
  const bool was_up = std::exchange(phase, Phase::waiting) == Phase::up;
  if (was_up && now - state.since_ms >= times.stable) tries = 0;
  client.reset();
  const int64_t longest = std::min(times.last_retry, times.first_retry << std::min(tries++, 20));
  state.next_try_ms = now + random_part(longest);
  state.protocol = 0;
  unconfirmed.clear();
  ++state.failures;
  if (was_up) {
    state.up = false;
    state.since_ms = now;
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

void BrokerLink::Data::on_accepted(int most_in_flight) {
  const int64_t now = steady_ms();
  elog(1, "uplink: connected to %s with MQTT %s, after %lld s without", target.c_str(), mqtt5 ? "5" : "3.1.1",
       static_cast<long long>((now - state.since_ms) / 1000));
  limit = std::min(most_in_flight, settings.in_flight);
  phase = Phase::up;
  five_has_worked = five_has_worked || mqtt5;
  begins_anew = false;
  reasons_said.clear();
  state.up = true;
  state.since_ms = now;
  state.protocol = mqtt5 ? 5 : 4;
  ++state.connects;
  for (const std::string& topic : subscriptions) client->subscribe(topic);
  if (events.on_up) events.on_up();
}

int BrokerLink::Data::publish(const std::string& topic, std::string_view payload, bool retain) {
  if (phase != Phase::up || unconfirmed.size() >= static_cast<size_t>(limit)) return kNotNow;
  const int token = client->publish(topic, payload, retain);
  if (token > 0) unconfirmed.emplace_back(token, steady_ms());
  if (token < 0) ++state.refused;
  return token < 0 ? kNever : token;
}

void BrokerLink::Data::on_answered(int token, const std::string& refusal) {
  const auto is_this = [&](const auto& one) { return one.first == token; };
  unconfirmed.erase(std::remove_if(unconfirmed.begin(), unconfirmed.end(), is_this), unconfirmed.end());
  if (token == farewell) {
    farewell = -1;
  } else if (refusal.empty()) {
    if (events.on_confirmed) events.on_confirmed(token);
  } else {
    ++state.refused;
    if (events.on_refused) events.on_refused(token, refusal);
  }
}

void BrokerLink::Data::on_subscription_refused() {
  state.last_error = "the broker refuses a subscription";
  if (const auto left_out = subscription_limit.allow()) {
    elog(1, "uplink: the broker refuses a subscription%s", left_out->text);
  }
}

void BrokerLink::Data::on_message(const char* topic, std::string_view payload, bool retained) {
  const auto covers = [&](const std::string& subscription) { return MqttClient::covers(subscription, topic); };
  const bool is_wanted = std::any_of(subscriptions.begin(), subscriptions.end(), covers);
  if (!is_wanted || payload.size() > kLargestMessage) {
    ++state.ignored;
  } else if (events.on_message) {
    events.on_message(topic, payload, retained);
  }
}

void BrokerLink::Data::close(const std::string& payload, int limit_ms) {
  const int64_t until = steady_ms() + limit_ms;
  again = false;
  for (farewell = 0; phase == Phase::up && farewell >= 0 && steady_ms() < until; serve()) {
    if (farewell == 0) farewell = publish(will.topic, payload, true);
    if (farewell >= 0) wait(until);
  }
  if (phase == Phase::up && farewell < 0) {
    client->leave();
    while (!client->is_gone() && steady_ms() < until && client->exchange()) wait(until);
  }
  phase = Phase::closed;
  client.reset();
  state.up = false;
  state.next_try_ms = state.protocol = 0;
  unconfirmed.clear();
}

// Waits until `until`, steady_ms(), for the connection to want something or to be due.
void BrokerLink::Data::wait(int64_t until) const {
  pollfd now = wanted();
  poll(&now, 1, static_cast<int>(std::max(int64_t{0}, std::min(until, due()) - steady_ms())));
}

pollfd BrokerLink::Data::wanted() const {
  if (client) return {client->descriptor(), client->wanted(), 0};
  return {phase == Phase::resolving ? lookup.descriptor() : -1, POLLIN, 0};
}

// steady_ms() of what is due next; negative: nothing.
int64_t BrokerLink::Data::due() const {
  if (phase == Phase::closed) return -1;
  if (again || (client && !client->trouble().empty())) return 0;
  if (phase == Phase::waiting) return state.next_try_ms;
  if (phase == Phase::resolving) return deadline;
  if (phase == Phase::connecting) return client->is_reached() ? deadline : address_deadline;
  return unconfirmed.empty() ? client->due() : std::min(client->due(), unconfirmed.front().second + times.acknowledge);
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
  const pollfd wanted = data->wanted();
  if (wanted.fd >= 0) out.push_back(wanted);
}

int BrokerLink::wait_ms() const {
  const int64_t due = data->due();
  return due < 0 ? -1 : static_cast<int>(std::clamp(due - steady_ms(), int64_t{0}, int64_t{3600000}));
}

void BrokerLink::run() {
  data->run();
}

BrokerLink::State BrokerLink::state() const {
  State now = data->state;
  now.in_flight = static_cast<int>(data->unconfirmed.size());
  return now;
}
