#include "uplink/answers.h"

#include <algorithm>

#include "uplink/broker_link.h"

namespace {

constexpr size_t kAnswersMax = 256;
constexpr size_t kAnswerBytesMax = size_t{1024} * 1024;

}  // namespace

void Answers::add(std::string topic, std::string payload) {
  bytes += topic.size() + payload.size();
  answers.push_back({std::move(topic), std::move(payload), 0});
  while (answers.size() > kAnswersMax || bytes > kAnswerBytesMax) {
    erase(0);
    ++lost;
  }
}

bool Answers::publish_next() {
  while (under_way < answers.size()) {
    Answer& next = answers[under_way];
    next.token = publish(next.topic, next.payload);
    if (next.token == BrokerLink::kNotNow) return false;
    if (next.token != BrokerLink::kNever) {
      ++under_way;
      return true;
    }
    erase(under_way);
  }
  return false;
}

void Answers::forget(int token) {
  const auto end = answers.begin() + static_cast<std::ptrdiff_t>(under_way);
  const auto found = std::find_if(answers.begin(), end, [&](const Answer& one) { return one.token == token; });
  if (found != end) erase(static_cast<size_t>(found - answers.begin()));
}

void Answers::begin_again() {
  under_way = 0;
}

void Answers::erase(size_t index) {
  const auto gone = answers.begin() + static_cast<std::ptrdiff_t>(index);
  if (index < under_way) --under_way;
  bytes -= gone->topic.size() + gone->payload.size();
  answers.erase(gone);
}
