#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "app/except.h"
#include "device/event_queue.h"
#include "listener/client_protocol.h"
#include "listener/manager_listener.h"
#include "listener/subscription.h"
#include "tests/event_client.h"
#include "tests/standin_device.h"
#include "util/clock.h"
#include "util/descriptor.h"
#include "util/text.h"

// What the daemon's next sends fail with, when not 0, after `sends_good` bytes more; and their number since then.
static std::atomic<int> send_error{0}, sends_good{0}, sends_failed{0};

// In the place of the system's.
extern "C" ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  if (send_error == 0) return sendto(fd, bytes, size, flags, nullptr, 0);
  const auto good = static_cast<size_t>(sends_good.exchange(0));
  if (good > 0) return sendto(fd, bytes, std::min(size, good), flags, nullptr, 0);
  ++sends_failed;
  errno = send_error;
  return -1;
}

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

// Lets the process open no more descriptors than stated, for as long as it lives.
class DescriptorLimit {
 public:
  DescriptorLimit() { getrlimit(RLIMIT_NOFILE, &before); }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
  void set(int descriptors) const {
    const rlimit lower{static_cast<rlim_t>(descriptors), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &lower);
  }

 private:
  rlimit before{};
};

// Whether the process rests, as one that waits does.
bool is_quiet() {
  const clock_t used = clock();
  usleep(300 * 1000);
  return clock() - used < CLOCKS_PER_SEC / 10;
}

class Listener : public testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, [](int) {});
    standin::reset();
    standin::set("listener_port", "0");
    listener.reset();
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
  EXPECT_EQ(match_type_string("", ""), 1);
  EXPECT_EQ(match_type_string("door", ""), 1);
}

TEST(ClientProtocol, PacketsAreTakenFromTheFront) {
  using Kind = PacketKind;
  const std::string good = subscription("door");
  const auto announced = [](int64_t length, size_t held) {
    return (integer(length) + std::string(70000, 0)).substr(0, held);
  };
  const struct {
    std::string bytes;
    Kind kind;
    int length;
    const char* type_string;
  } cases[] = {{"", Kind::incomplete, 0, nullptr},
               {good.substr(0, 3), Kind::incomplete, 0, nullptr},
               {good + "more", Kind::subscription, 13, "door"},
               {announced(9, 9), Kind::subscription, 9, ""},
               {integer(16) + "....pad\0to\0\0"s, Kind::subscription, 16, "pad"},
               {announced(65024, 65023), Kind::incomplete, 0, nullptr},
               {announced(65024, 65024), Kind::subscription, 65024, ""},
               {announced(65025, 70000), Kind::bad_length, 65025, nullptr},
               {announced(INT32_MIN, 4), Kind::bad_length, INT32_MIN, nullptr},
               {announced(8, 4), Kind::bad_length, 8, nullptr},
               {announced(0, 4), Kind::reset, 0, nullptr},
               {good.substr(0, 12) + "!" + good, Kind::bad_end, 13, nullptr}};
  for (const auto& row : cases) {
    SCOPED_TRACE(testing::Message() << row.bytes.size() << " bytes that announce " << row.length);
    const ClientPacket packet = next_packet(row.bytes.data(), static_cast<int>(row.bytes.size()));
    EXPECT_EQ(packet.kind, row.kind);
    EXPECT_EQ(packet.length, row.length);
    EXPECT_STREQ(packet.type_string, row.type_string);
  }
}

TEST(ListenerStart, SaysWhatFailed) {
  standin::reset();
  try {
    const ManagerListener without_store;
    ADD_FAILURE() << "nothing was thrown";
  } catch (const except_conf& error) {
    EXPECT_STREQ(error.what(), "Failed to open conf[name:zelvind.info,type:0,path:/opt/flash/mtd4-cfg]");
  }
  EXPECT_EQ(g_listener, nullptr);
  standin::set("log_level", "2");
  {
    const DescriptorLimit limit;
    limit.set(Descriptor(dup(0)).get());  // none more: port 5512 itself is not ours to take
    EXPECT_EQ(ManagerListener().start(), -1);
  }
  standin::set("listener_port", "70000");
  EXPECT_EQ(ManagerListener().start(), -1);
  EXPECT_EQ(standin::handles_open(), 0);
  EXPECT_EQ(standin::log_lines()[1], "<2> mlistener: Listener listen port : 5512");
  EXPECT_EQ(standin::log_lines()[2], "<1> mlistener: Failed to create server socket(errno:24)");
  EXPECT_EQ(standin::log_lines().back(), "<1> mlistener: Failed to create server socket(errno:22)");
}

TEST(WaitBudget, TheWaitsOfAMinuteAddUp) {
  const WaitBudget::Clock::time_point start{1000s};
  WaitBudget often, seldom;
  for (int i = 0; i < 30; ++i) {
    EXPECT_TRUE(often.is_left(start + i * 1s)) << i;
    often.spend(100ms, start + i * 1s);
  }
  for (const auto later : {29s, 50s, 59s}) EXPECT_FALSE(often.is_left(start + later)) << later.count();
  EXPECT_TRUE(often.is_left(start + 70s));
  often.caught_up(start + 70s);
  EXPECT_FALSE(often.is_left(start + 129s));
  EXPECT_TRUE(often.is_left(start + 130s));
  for (int i = 0; i < 300; i += 10) {
    seldom.spend(400ms, start + i * 1s);
    EXPECT_TRUE(seldom.is_left(start + i * 1s)) << i;
  }
}

TEST(Subscription, IsSearchedOnceForAName) {
  Subscription asks;
  EXPECT_FALSE(asks.asks_for("door", 1));
  std::unique_ptr<char[]> text(strcpy(new char[5], "door"));
  asks.swap(text);
  EXPECT_TRUE(asks.asks_for("door", 1));
  EXPECT_FALSE(asks.asks_for("mail", 2));
  EXPECT_TRUE(asks.asks_for("mail", 1));  // the answer is remembered, and nobody looks
  asks.forget(1);
  EXPECT_FALSE(asks.asks_for("mail", 1));
  EXPECT_FALSE(asks.asks_for("door", 2));
}

TEST(ListenerClient, ADepartedOneLeavesNoLargeMemoryBehind) {
  ListenerClient client;
  client.output.append(std::string(1 << 20, '.').data(), 1 << 20);
  client.close();
  EXPECT_LT(client.output.memory(), 70000u);
  EXPECT_TRUE(client.output.empty());
}

TEST_F(Listener, EventPacketsArriveByteForByte) {
  const auto client = subscribed("heartbeat,ok");
  for (const size_t size : {0u, 3u, 2031u, 2032u, 65000u, 200000u}) {
    SCOPED_TRACE(size);
    forward("email", "not for this client");
    forward("ok", std::string(size, 'i'));
    EventClient::Event event;
    ASSERT_TRUE(client->read(event));
    EXPECT_EQ(event.length, static_cast<int64_t>(16 + size));
    EXPECT_EQ(event.seconds, 1234);
    EXPECT_EQ(event.microseconds, -5);
    EXPECT_EQ(event.name, "ok");
    EXPECT_EQ(event.info, std::string(size, 'i'));
  }
}

TEST_F(Listener, SubscriptionsComeInAnyPieces) {
  EventClient client(port);
  client.send_bytes(subscription("door") + subscription("mail"));
  ASSERT_TRUE(standin::wait_for_line("set as [mail]"));
  for (const char byte : subscription("slow")) client.send_bytes(std::string(1, byte));
  ASSERT_TRUE(standin::wait_for_line("set as [slow]"));
  client.send_bytes(subscription("good") + subscription("broken").substr(0, 14) + "!" + subscription("dropped"));
  ASSERT_TRUE(standin::wait_for_line("broken packet"));
  client.send_bytes(integer(-7) + "rubbish");
  ASSERT_TRUE(standin::wait_for_line("broken packet", 2));
  client.send_bytes(subscription(std::string(5000, 'n')));
  ASSERT_TRUE(standin::wait_for_line("set as [nnn"));
  const auto received = [](int bytes) { return sstr("<4> mlistener: recv packet : %d bytes", bytes); };
  const auto set_as = [](const std::string& text) { return "<2> mlistener: type string is set as [" + text + "]"; };
  const std::string broken = "<1> mlistener: broken packet is recevied";
  Lines lines = standin::log_lines();
  lines.erase(lines.begin(), lines.begin() + 4);  // of the start and of the client
  EXPECT_EQ(lines, (Lines{received(13), set_as("door"), received(13), set_as("mail"), received(13), set_as("slow"),
                          received(13), set_as("good"), received(15), broken, broken, received(5009),
                          set_as(std::string(5000, 'n'))}));
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
  auto first = subscribed("door");
  const int number = number_behind("new client : ");
  EXPECT_EQ(standin::log_lines_with("new client").back(),
            sstr("<2> mlistener: new client : %d - tot:%d", number, g_accepted_total - 1));
  first->send_bytes(subscription("half a packet").substr(0, 15));
  first->leave();
  ASSERT_TRUE(standin::wait_for_line(sstr("mlistener: delete client : %d", number)));
  while (fcntl(number, F_GETFD) >= 0) usleep(1000);  // the line comes before the deed
  const auto second = subscribed("mail");
  EXPECT_EQ(number_behind("new client : "), number);
  forward("door", "not asked for");
  forward("mail", "asked for");
  EXPECT_EQ(second->read_info(), "asked for");
}

TEST_F(Listener, MoreNamesThanAreRememberedMatchAllTheSame) {
  const auto client = subscribed("a,t3,t77");
  const auto forward_all = [](int count) {
    for (int i = 0; i < count; ++i) forward(sstr("t%d", i % 100), sstr("t%d", i % 100));
  };
  forward_all(200);
  for (const char* const name : {"t3", "t7", "t77", "t3", "t7", "t77"}) EXPECT_EQ(client->read_info(), name);
  subscribe(*client, "t5");
  forward_all(10);
  EXPECT_EQ(client->read_info(), "t5");
}

TEST_F(Listener, AFailedSendIsSaidOnce) {
  for (const int error : {ENOBUFS, ECONNRESET}) {
    SCOPED_TRACE(error);
    const auto client = subscribed(sstr("door,%d", error));
    const size_t said = standin::log_lines_with("failed to send data").size();
    sends_good = error == ENOBUFS ? 7 : 0;
    sends_failed = 0;
    send_error = error;
    for (const char mark : {'a', 'b', 'c', 'd'}) standin::post(1, "door", std::string(40000, mark));
    while (forward_next()) {
    }
    send_error = 0;
    EXPECT_EQ(standin::log_lines_with("failed to send data").size(), said + 1);
    if (error == ECONNRESET) {
      EXPECT_EQ(sends_failed, 1);
      EXPECT_TRUE(client->ended());
      continue;
    }
    EXPECT_EQ(client->read_info(), std::string(40000, 'a'));  // none of its bytes is missing
    ASSERT_TRUE(standin::wait_for_line("reads again, "));
    forward("door", "over");
    int missing = 3 - number_behind("reads again, ");
    while (client->read_info().size() == 40000) --missing;
    EXPECT_EQ(missing, 0);
  }
}

TEST_F(Listener, SlowClientsAreSkippedAndServedAgain) {
  const auto reader = subscribed("door,reader");
  std::future<int> read = std::async(std::launch::async, [&] {
    int number = 0;
    while (reader->read_info() == std::to_string(number) + std::string(20000, '.')) ++number;
    return reader->ended() ? number : -1;
  });
  std::vector<std::unique_ptr<EventClient>> stalled;
  for (const char* const name : {"0", "1", "2"}) stalled.push_back(subscribed("door,stalled"s + name, 4096));
  const auto slow = subscribed("door,slow", 4096);
  const int slow_number = number_behind("new client : ");
  std::atomic<bool> over{false};
  std::future<void> slow_read = std::async(std::launch::async, [&] {
    while (!over && slow->read_info() != "nothing") usleep(30 * 1000);
  });

  int number = 0;
  const auto forward_numbered = [&] { forward("door", std::to_string(number++) + std::string(20000, '.')); };
  const Stopwatch until_skipped;
  const std::string stop = ") stopped reading, its events are skipped";
  while (standin::log_lines_with(stop).size() < 2 && until_skipped.ms() < 9000) forward_numbered();
  ASSERT_LT(until_skipped.ms(), 8000);  // some three seconds of waiting for the three, and for the slow one
  const Stopwatch afterwards;
  for (int i = 0; i < 300; ++i) forward_numbered();
  EXPECT_LT(afterwards.ms(), 2000);  // and none any more
  const Lines stops = standin::log_lines_with(stop);
  ASSERT_GE(stops.size(), 2u);
  EXPECT_NE(stops[1].find(sstr("client %d (127.0.0.1:", slow_number)), std::string::npos) << stops[1];
  EXPECT_NE(stops[1].find(stop + " (and 2 more)"), std::string::npos) << stops[1];

  // Two go: the next client with the record of one of them is owed nothing. The others read on: whole packets, some
  // missing.
  over = true;
  slow_read.get();
  const size_t gone = standin::log_lines_with("delete client").size();
  slow->leave();
  stalled.pop_back();
  ASSERT_TRUE(standin::wait_for_line("delete client", gone + 2));
  const auto fresh = subscribed("door,fresh");
  const size_t told = standin::log_lines_with("reads again").size();
  std::vector<std::future<int>> got;
  for (const auto& client : stalled) {
    got.push_back(std::async(std::launch::async, [&client = *client] {
      EventClient::Event event;
      for (int count = 0, last = -1;; ++count, last = atoi(event.info.c_str())) {
        if (!client.read(event) || event.info == "over") return count;
        EXPECT_GT(atoi(event.info.c_str()), last);
      }
    }));
  }
  ASSERT_TRUE(standin::wait_for_line("reads again", told + 2));
  forward("door", "over");
  EXPECT_EQ(fresh->read_info(), "over");
  int missing = 2 * number;
  for (std::future<int>& count : got) missing -= count.get();
  const Lines lines = standin::log_lines_with(") reads again, ");
  for (size_t i = told; i < lines.size(); ++i) missing -= atoi(lines[i].c_str() + lines[i].find("again, ") + 7);
  EXPECT_EQ(missing, 0);  // every event skipped is told

  const int all = number;
  const Stopwatch second_time;
  const size_t stopped = standin::log_lines_with(stop).size();
  while (standin::log_lines_with(stop).size() == stopped) forward_numbered();
  EXPECT_LT(second_time.ms(), 2000);  // who has stalled a moment ago is not waited for
  listener->stop();
  EXPECT_EQ(read.get(), all);
}

TEST_F(Listener, StopsAtOnceWhileItWaits) {
  const auto client = subscribed("door", 4096);
  std::atomic<int> forwarded{0};
  std::atomic<bool> stopped{false};
  std::thread script([&] {
    for (; !stopped; ++forwarded) forward("door", std::string(60000, '.'));
  });
  for (int before = -1; before != forwarded; usleep(200 * 1000)) before = forwarded;  // it waits now
  const Stopwatch watch;
  listener->stop();
  EXPECT_LT(watch.ms(), 1500);
  stopped = true;
  script.join();
  EXPECT_TRUE(client->ended());
}

TEST_F(Listener, DescriptorsRunShort) {
  const DescriptorLimit limit;
  limit.set(320 + 2);
  std::vector<std::unique_ptr<EventClient>> clients;
  for (int i = 0; i < 5; ++i) clients.push_back(std::make_unique<EventClient>(port));
  for (size_t i = 2; i < 5; ++i) EXPECT_TRUE(clients[i]->ended());
  const size_t said = standin::log_lines_with("too many clients, 127.0.0.1:").size();
  EXPECT_GE(said, 1u);
  EXPECT_LE(said, 2u);  // a second may have begun between the three
  EXPECT_EQ(standin::log_lines_with("new client").size(), 2u);

  limit.set(Descriptor(dup(0)).get() + 1);  // enough for this end of one more, and none for the daemon's
  const EventClient waiting(port);
  EXPECT_TRUE(is_quiet());
  limit.set(1024);
  EXPECT_TRUE(standin::wait_for_line("new client", 3));
}

TEST_F(Listener, EveryReaderGetsEveryEventWhileOthersComeAndGo) {
  std::vector<std::unique_ptr<EventClient>> readers;
  std::vector<std::future<int>> counts;
  for (int i = 0; i < 10; ++i) {
    readers.push_back(subscribed("door,reader" + std::to_string(i)));
    counts.push_back(std::async(std::launch::async, [&client = *readers.back()] {
      int number = 0;
      while (client.read_info() == std::to_string(number)) ++number;
      return number;
    }));
  }
  std::mutex at_the_door;  // few can wait there: who comes while it is full may have to try again for long
  size_t connected = readers.size();
  std::atomic<int> lives{50};
  std::vector<std::thread> restless;
  for (int seed = 0; seed < 10; ++seed) {
    restless.emplace_back([&, seed] {
      std::mt19937 random(static_cast<unsigned>(seed));
      while (lives-- > 0) {
        std::unique_lock<std::mutex> alone(at_the_door);
        EventClient client(port);
        EXPECT_TRUE(standin::wait_for_line("new client", ++connected));
        alone.unlock();
        int last = -1;
        std::string rubbish(random() % 600, '\0');
        for (char& byte : rubbish) byte = static_cast<char>(random() % 3 == 0 ? random() : 0);
        const bool hostile = random() % 3 == 0;
        if (hostile) client.send_bytes(random() % 2 ? rubbish : subscription("door").substr(0, random() % 13));
        for (auto round = random() % 3; round < 3 && !hostile; ++round) {
          client.send_bytes(subscription("mail") + subscription("door") +
                            (random() % 2 ? subscription("door,mail") : ""));
          for (auto events = random() % 100; events > 0; --events) {
            const int number = atoi(client.read_info().c_str());
            EXPECT_GT(number, last);
            last = number;
          }
        }
        client.leave(random() % 2 == 0);
      }
    });
  }
  int number = 0;
  while (number < 10000 || lives > -10) {
    for (int i = number % 40; i >= 0; --i) standin::post(1, "door", std::to_string(number++));
    while (forward_next()) {
    }
    usleep(1000);
  }
  for (std::thread& thread : restless) thread.join();
  EXPECT_TRUE(standin::wait_for_line("delete client", connected - readers.size()));
  EXPECT_TRUE(is_quiet());
  listener->stop();
  for (std::future<int>& count : counts) EXPECT_EQ(count.get(), number);
}

}  // namespace
