#include "listener/subscription_cache.h"

#include "listener/client_protocol.h"

namespace {

bool asks_for(const ListenerClient& client, const char* type_name) {
  return client.type_string && match_type_string(client.type_string->c_str(), type_name) > 0;
}

}  // namespace

const ClientSet& SubscriptionCache::who_asks_for(const char* type_name, const ClientList& clients) {
  Name& name = find(type_name);
  for (size_t i = 0; i < ClientSet::words_of(clients.size()); ++i) {
    uint64_t unknown = ClientSet::below(clients.size(), i) & ~name.known.words[i];
    name.known.words[i] |= unknown;
    while (unknown != 0) {
      const size_t position = i * ClientSet::kWordBits + take_lowest(unknown);
      name.asking.put(position, asks_for(*clients[position], type_name));
    }
  }
  return name.asking;
}

SubscriptionCache::Name& SubscriptionCache::find_elsewhere(const char* type_name) {
  const size_t hash = std::hash<std::string_view>()(type_name);
  for (size_t i = 0; i < names.size(); ++i) {
    if (names[i].hash != hash || names[i].text != type_name) continue;
    last = i;
    return names[i];
  }
  last = names.size() < kNames ? names.size() : next++ % kNames;
  if (last == names.size()) names.emplace_back();
  names[last] = {};
  names[last].text = type_name;
  names[last].hash = hash;
  return names[last];
}

void SubscriptionCache::forget(size_t position) {
  for (Name& name : names) name.known.put(position, false);
}

void SubscriptionCache::remove(size_t position) {
  for (Name& name : names) {
    name.known.remove(position);
    name.asking.remove(position);
  }
}
