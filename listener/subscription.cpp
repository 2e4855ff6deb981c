#include "listener/subscription.h"

#include "listener/client_protocol.h"

void Subscription::swap(std::unique_ptr<char[]>& text) {
  type_string.swap(text);
  known = 0;
}

void Subscription::look(const char* type_name, uint64_t bit) {
  const bool matches = type_string && match_type_string(type_string.get(), type_name) > 0;
  matching = matches ? matching | bit : matching & ~bit;
  known |= bit;
}
