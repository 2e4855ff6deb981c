#include <gtest/gtest.h>
#include <sys/resource.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <future>
#include <memory>
#include <thread>

#include "device/event_queue.h"
#include "listener/client_protocol.h"
#include "listener/manager_listener.h"
#include "tests/event_client.h"
#include "tests/standin_device.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/text.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Lines = std::vector<std::string>;
const auto subscription = EventClient::subscription;
const auto integer = EventClient::integer;

struct Stopwatch {
  int64_t ms() const { return steady_ms() - start; }
  const int64_t start = steady_ms();
};

// Takes the next event from the queue and gives it to the listener, as the event loop does.
bool forward_next() {
  event_item* const event = event_dequeue(0);
  if (event == nullptr) return false;
  g_listener->forward_event(event);
  event_item_free(event);
  return true;
}

void forward(const std::string& name, const std::string& info) {
  standin::post(1, name, info);
  while (forward_next()) {
  }
}

// The number behind `text` in the last line that holds it.
int number_behind(const std::string& text) {
  const Lines lines = standin::log_lines_with(text);
  return lines.empty() ? -1 : atoi(lines.back().c_str() + lines.back().find(text) + text.size());
}

// Lets the process open no descriptor of this number or above.
void limit_descriptors(int number) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = static_cast<rlim_t>(number);
  setrlimit(RLIMIT_NOFILE, &limit);
}

// Reads numbered events, each one later than the one before, up to "over" or the end. Their count.
std::future<int> count_events(EventClient& client) {
  return std::async(std::launch::async, [&client] {
    for (int count = 0, last = -1;; ++count) {
      const std::string info = client.read_info();
      if (info == "over" || info == "nothing") return count;
      EXPECT_LT(last, atoi(info.c_str()));
      last = atoi(info.c_str());
    }
  });
}

class Listener : public testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    standin::reset();
    listener = std::make_unique<ManagerListener>();
    ASSERT_EQ(listener->start(), 1);
    port = number_behind("mlistener: listening on port ");
  }

  // A client whose type string, unlike any other in its test, is in force when this returns.
  std::unique_ptr<EventClient> subscribed(const std::string& type_string, int receive_buffer = 0) {
    auto client = std::make_unique<EventClient>(port, receive_buffer);
    subscribe(*client, type_string);
    return client;
  }

  static void subscribe(EventClient& client, const std::string& type_string) {
    client.send_bytes(subscription(type_string) + subscription(type_string));
    // The line comes before the deed: the second one tells that the first is done.
    EXPECT_TRUE(standin::wait_for_line("set as [" + type_string + "]", 2));
  }

  std::unique_ptr<ManagerListener> listener;
  int port = 0;
};

TEST(ClientProtocol, TheFirstOccurrenceOfANameDecides) {
  for (const char* const asks : {"door", "email,door", "doorbell", "door2,email", "door,backdoor", ",,door"}) {
    EXPECT_EQ(match_type_string(asks, "door"), 1) << asks;
  }
  for (const char* const asks_not : {"", "doo", "email", "backdoor,door", "email, door", "Door", "doo,r"}) {
    EXPECT_EQ(match_type_string(asks_not, "door"), -1) << asks_not;
  }
}

TEST(ClientProtocol, PacketsAreTakenFromTheFront) {
  using Kind = PacketKind;
  const std::string good = subscription("door");
  const auto announced = [](int64_t length, size_t held) {
    return (integer(length) + std::string(65020, '\0')).substr(0, held);
  };
  const struct {
    std::string bytes;
    Kind kind;
    const char* type_string = nullptr;
  } rows[] = {{good.substr(0, 3), Kind::incomplete},
              {good + "more", Kind::subscription, "door"},
              {good.substr(0, 12) + "!" + good, Kind::bad_end},
              {integer(16) + "....pad\0to\0\0"s, Kind::subscription, "pad"},
              {announced(8, 8), Kind::bad_length},
              {announced(9, 9), Kind::subscription, ""},
              {announced(65024, 65023), Kind::incomplete},
              {announced(65024, 65024), Kind::subscription, ""},
              {announced(65025, 4), Kind::bad_length},
              {announced(INT32_MIN, 4), Kind::bad_length},
              {announced(0, 4), Kind::reset}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.bytes.size() << " bytes: " << row.bytes.substr(0, 30));
    const ClientPacket packet = next_packet(row.bytes.data(), static_cast<int>(row.bytes.size()));
    EXPECT_EQ(packet.kind, row.kind);
    EXPECT_STREQ(packet.type_string, row.type_string);
  }
}

TEST(WaitBudget, TheWaitsOfAMinuteAddUp) {
  const WaitBudget::Clock::time_point start{1000s};
  WaitBudget budget;
  for (int i = 0; i < 30; ++i) {
    EXPECT_TRUE(budget.is_left(start + i * 1s)) << i;
    budget.spend(100ms, start + i * 1s);
  }
  for (const auto later : {29s, 50s, 59s}) EXPECT_FALSE(budget.is_left(start + later)) << later.count();
  EXPECT_TRUE(budget.is_left(start + 70s));
  budget.caught_up(start + 70s);
  EXPECT_FALSE(budget.is_left(start + 129s));
  EXPECT_TRUE(budget.is_left(start + 130s));
}

TEST_F(Listener, EventPacketsArriveByteForByte) {
  const auto client = subscribed("heartbeat,ok");
  for (const size_t size : {0u, 3u, 2031u, 2032u, 65000u, 200000u}) {
    SCOPED_TRACE(size);
    forward("email", "not for this client");
    forward("ok", std::string(size, 'i'));
    EventClient::Event event;
    ASSERT_TRUE(client->read(event));
    EXPECT_EQ(event.seconds, 1234);
    EXPECT_EQ(event.microseconds, -5);
    EXPECT_EQ(event.name, "ok");
    EXPECT_EQ(event.info, std::string(size, 'i'));
  }
}

TEST_F(Listener, SubscriptionsComeInAnyPieces) {
  EventClient client(port);
  const std::string mail = subscription("mail"), much(5000, 'n');
  client.send_bytes(subscription("door") + mail.substr(0, 5));
  ASSERT_TRUE(standin::wait_for_line("set as [door]"));
  client.send_bytes(mail.substr(5) + subscription("broken").substr(0, 14) + "!" + subscription("dropped"));
  ASSERT_TRUE(standin::wait_for_line("broken packet"));
  client.send_bytes(integer(-7) + "rubbish");
  ASSERT_TRUE(standin::wait_for_line("broken packet", 2));
  client.send_bytes(subscription(much));
  EXPECT_TRUE(standin::wait_for_line("[" + much + "]"));
  const std::string set_as = "<2> mlistener: type string is set as [";
  EXPECT_EQ(standin::log_lines_with("set as"), (Lines{set_as + "door]", set_as + "mail]", set_as + much + "]"}));
}

TEST_F(Listener, ARowOfEventsLeavesWithItsLastOne) {
  const auto client = subscribed("door");
  const Stopwatch watch;
  for (int round = 0; round < 20; ++round) {
    for (const char* const info : {"first", "second"}) standin::post(1, "door", info);
    standin::post(EVENT_TYPE_QUIT, "mail", "for nobody");  // ends the row, whatever waits behind it
    standin::post(1, "door", "third");
    for (int i = 0; i < 3; ++i) forward_next();
    for (const char* const info : {"first", "second"}) EXPECT_EQ(client->read_info(), info);
    forward_next();
    EXPECT_EQ(client->read_info(), "third");
  }
  EXPECT_LT(watch.ms(), 1500);             // nothing was left to the event_recv thread, whose pass takes some 200 ms
  for (const bool stop : {false, true}) {  // a handler that runs for long holds nothing back, nor does the stop
    for (const char* const info : {"held back", "not yet taken"}) standin::post(1, "door", info);
    forward_next();
    if (stop) listener->stop();
    EXPECT_EQ(client->read_info(), "held back");
    event_item_free(event_dequeue(0));
  }
  EXPECT_TRUE(client->ended());
}

TEST_F(Listener, ARecordStartsCleanForTheNextClient) {
  const auto first = subscribed("door");
  first->send_bytes(subscription("half a packet").substr(0, 15));
  first->leave();
  ASSERT_TRUE(standin::wait_for_line(sstr("mlistener: delete client : %d", number_behind("new client : "))));
  EventClient second(port);
  second.send_bytes(integer(-7));
  ASSERT_TRUE(standin::wait_for_line("broken packet"));
  forward("door", "not asked for");
  subscribe(second, "mail");
  forward("mail", "asked for");
  EXPECT_EQ(second.read_info(), "asked for");
}

TEST_F(Listener, MoreNamesThanAreRememberedMatchAllTheSame) {
  const auto client = subscribed("03,77");
  for (int i = 0; i < 200; ++i) forward(sstr("%02d", i % 100), std::to_string(i));
  for (const char* const info : {"3", "77", "103", "177"}) EXPECT_EQ(client->read_info(), info);
  subscribe(*client, "88");
  for (const char* const name : {"77", "88"}) forward(name, name);
  EXPECT_EQ(client->read_info(), "88");
}

TEST_F(Listener, SlowClientsAreSkippedAndServedAgain) {
  const auto reader = subscribed("door,reader");
  std::future<int> read = count_events(*reader);
  const auto stalled = subscribed("door,over,stalled", 4096);
  const auto slow = subscribed("door,slow", 4096);
  const auto leaving = subscribed("door,leaving", 4096);
  std::atomic<bool> over{false};
  std::future<void> slow_read = std::async(std::launch::async, [&] {
    while (!over && slow->read_info() != "nothing") usleep(30 * 1000);
  });

  int number = 0;
  const auto forward_numbered = [&] { forward("door", std::to_string(number++) + std::string(20000, '.')); };
  const std::string stop = ") stopped reading, its events are skipped";
  const auto ms_of_300 = [&] {  // events, which no socket holds
    const Stopwatch watch;
    for (int i = 0; i < 300; ++i) forward_numbered();
    return watch.ms();
  };
  const Stopwatch until_skipped;
  while (standin::log_lines_with(stop).size() < 2 && until_skipped.ms() < 9000) forward_numbered();
  ASSERT_LT(until_skipped.ms(), 8000);  // some three seconds of waiting for the two, and for the slow one
  EXPECT_LT(ms_of_300(), 2000);         // and none any more
  const Lines stops = standin::log_lines_with(stop);
  EXPECT_NE(stops[1].find(stop + " (and 1 more)"), std::string::npos) << stops[1];

  // Two go: the next client, with the record of the last one, is owed nothing. The third reads on: whole packets, in
  // order, and what is missing is told.
  over = true;
  slow_read.get();
  slow->leave();
  leaving->leave();
  ASSERT_TRUE(standin::wait_for_line("delete client", 2));
  const auto fresh = subscribed("over,fresh");
  const std::string again = stops[0].substr(0, stops[0].find(" stopped")) + " reads again, ";
  std::future<int> got = count_events(*stalled);
  ASSERT_TRUE(standin::wait_for_line(again));
  forward("over", "over");
  EXPECT_EQ(fresh->read_info(), "over");
  EXPECT_EQ(got.get() + number_behind(again), number);

  EXPECT_LT(ms_of_300(), 2000);  // who has stalled a moment ago is not waited for
  listener->stop();
  EXPECT_EQ(read.get(), number);
}

TEST_F(Listener, StopsAtOnceWhileItWaits) {
  const auto client = subscribed("door");
  std::thread script([] { forward("door", std::string(32 << 20, '.')); });  // more than a socket holds
  usleep(500 * 1000);                                                       // it waits now
  const Stopwatch watch;
  listener->stop();
  EXPECT_LT(watch.ms(), 1500);
  script.join();
  EXPECT_TRUE(client->ended());
}

TEST_F(Listener, DescriptorsRunShort) {
  limit_descriptors(320 + 2);
  std::unique_ptr<EventClient> clients[5];
  for (auto& client : clients) client = std::make_unique<EventClient>(port);
  for (int i : {2, 3, 4}) EXPECT_TRUE(clients[i]->ended());
  EXPECT_LE(standin::log_lines_with("too many clients, 127.0.0.1:").size(), 2u);  // at most one a second
  EXPECT_EQ(standin::log_lines_with("new client").size(), 2u);

  limit_descriptors(Descriptor(dup(0)).get() + 1);  // enough for this end of one more, and none for the daemon's
  const EventClient waiting(port);
  const clock_t used = clock();
  usleep(300 * 1000);
  EXPECT_LT(clock() - used, CLOCKS_PER_SEC / 10);  // nothing is tried again and again
  limit_descriptors(1024);
  EXPECT_TRUE(standin::wait_for_line("new client", 3));
}

}  // namespace
