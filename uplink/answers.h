// Answers to commands on their way to the broker, in memory until the broker has confirmed them: at most 256 of them
// and 1 MiB. The oldest one goes when there is no room; whoever waits for it asks again with the same id.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

// One thread only. Nothing throws.
class Answers {
 public:
  // As BrokerLink::publish.
  using Publish = std::function<int(const std::string& topic, const std::string& payload)>;

  explicit Answers(Publish publish_one) : publish(std::move(publish_one)) {}

  void add(std::string topic, std::string payload);

  // Publishes the oldest one that is not under way. False: there is none, or the broker takes nothing now.
  bool publish_next();

  // The broker has confirmed or refused the answer of this token; a token of somebody else's does nothing.
  void forget(int token);

  // The connection is lost: all are to be published again.
  void begin_again();

  // How many went because there was no room.
  uint64_t dropped() const { return lost; }

 private:
  struct Answer {
    std::string topic, payload;
    int token = 0;
  };

  void erase(size_t index);

  const Publish publish;
  std::deque<Answer> answers;  // those that are under way, and behind them those that are to be published
  size_t under_way = 0;
  size_t bytes = 0;
  uint64_t lost = 0;
};
