// Which clients ask for events of a type name, remembered for the names of recent events. Searching all type strings
// for every event would let a few clients with long ones hold up all the others.
//
// No lock of its own: all calls under the listener's lock.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "listener/client_set.h"
#include "listener/listener_client.h"

using ClientList = std::vector<std::unique_ptr<ListenerClient>>;

class SubscriptionCache {
 public:
  static constexpr size_t kNames = 256;

  // Those of `clients` that ask for events of `type_name`. Valid until the next call. Throws std::bad_alloc.
  const ClientSet& who_asks_for(const char* type_name, const ClientList& clients);

  // The client at `position` has another type string.
  void forget(size_t position);

  // The client at `position` leaves the list: those behind move up.
  void remove(size_t position);

 private:
  struct Name {
    size_t hash = 0;
    std::string text;
    ClientSet known;   // clients whose type strings have been searched,
    ClientSet asking;  // and those whose type strings ask for the name
  };

  Name& find(const char* type_name) {
    if (last < names.size() && strcmp(names[last].text.c_str(), type_name) == 0) return names[last];
    return find_elsewhere(type_name);
  }
  Name& find_elsewhere(const char* type_name);

  std::vector<Name> names;
  size_t last = 0;  // the name found last: events of one type often come in a row
  size_t next = 0;  // the name to be replaced next, once there are kNames
};
