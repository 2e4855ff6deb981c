#include "device/listener_access.h"

#include <arpa/inet.h>
#include <algorithm>
#include <filesystem>

#include "device/event_source.h"
#include "device/store_text.h"
#include "util/control_paths.h"
#include "util/text.h"

namespace {

constexpr size_t kEntriesShown = 3;

std::string_view without_blanks(std::string_view text) {
  constexpr char kBlanks[] = " \t";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

std::vector<std::string> items_of(std::string_view list) {
  std::vector<std::string> items;
  for (bool more = true; more;) {
    more = list.find(',') != std::string_view::npos;
    items.emplace_back(without_blanks(take_item(list, ',')));
  }
  return items;
}

bool parse_address(const std::string& text, in_addr_t& address) {
  in_addr parsed{};
  const bool is_address = text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &parsed) == 1;
  address = parsed.s_addr;
  return is_address;
}

std::optional<ListenEndpoint> parse_endpoint(const std::string& item) {
  ListenEndpoint endpoint;
  if (!item.empty() && item.front() == '/') {
    endpoint.path = std::filesystem::path(item).lexically_normal();
    return endpoint.path.back() == '/' ? std::nullopt : std::optional(endpoint);
  }
  if (!parse_address(item, endpoint.address)) return {};
  const in_addr_t first_byte = ntohl(endpoint.address) >> 24;
  const bool is_of_a_machine = endpoint.address == INADDR_ANY || (first_byte > 0 && first_byte < 224);
  return is_of_a_machine ? std::optional(endpoint) : std::nullopt;
}

// Whether only one of the two can be open. Unix sockets differ in their locks, and none is another one's lock.
bool collide(const ListenEndpoint& one, const ListenEndpoint& other) {
  if (one.path.empty() != other.path.empty()) return false;
  if (!one.path.empty()) {
    const std::string lock = one.lock_path();
    const std::string other_lock = other.lock_path();
    return lock == other_lock || one.path == other_lock || other.path == lock;
  }
  return one.address == other.address || one.address == INADDR_ANY || other.address == INADDR_ANY;
}

}  // namespace

std::string ListenEndpoint::text() const {
  if (!path.empty()) return path;
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof(text));
  return text;
}

// "events.lock" beside "events.sock", so that nobody takes the daemon's other sockets for it.
std::string ListenEndpoint::lock_path() const {
  constexpr std::string_view kEnd = ".sock";
  const std::string_view name = path;
  const bool has_end = name.size() > kEnd.size() && name.substr(name.size() - kEnd.size()) == kEnd;
  return std::string(name.substr(0, name.size() - (has_end ? kEnd.size() : 0))) + ".lock";
}

std::optional<std::vector<ListenEndpoint>> parse_listener_address(std::string_view value) {
  std::vector<ListenEndpoint> endpoints;
  if (without_blanks(value) == "none") return endpoints;
  for (const std::string& item : items_of(value)) {
    const std::optional<ListenEndpoint> endpoint = parse_endpoint(item);
    if (!endpoint || endpoints.size() == kListenEndpointsMax) return {};
    const auto in_the_way = [&](const ListenEndpoint& other) { return collide(*endpoint, other); };
    const ListenEndpoint of_daemon[] = {{kEventSocketPath}, {kControlSocketPath}};
    if (std::any_of(std::begin(of_daemon), std::end(of_daemon), in_the_way)) return {};
    if (std::any_of(endpoints.begin(), endpoints.end(), in_the_way)) return {};
    endpoints.push_back(*endpoint);
  }
  return endpoints;
}

AllowedNetworks::AllowedNetworks(std::string_view list) {
  for (const std::string& item : items_of(list)) {
    const std::optional<Network> network = parse(item);
    if (network && networks.size() < kAllowedNetworksMax) {
      networks.push_back(*network);
    } else {
      bad.push_back(item);
    }
  }
}

std::optional<AllowedNetworks::Network> AllowedNetworks::parse(std::string_view entry) {
  constexpr int kBits = 32;
  const size_t slash = std::min(entry.find('/'), entry.size());
  int length = kBits;
  if (slash < entry.size()) {
    const std::string_view digits = entry.substr(slash + 1);
    if (!parse_store_int(digits, length) || length < 0 || length > kBits) return {};
    if (digits != std::to_string(length)) return {};  // "08", "-0"
  }
  Network network;
  if (!parse_address(std::string(entry.substr(0, slash)), network.address)) return {};
  network.mask = length == 0 ? 0 : htonl(~in_addr_t{0} << (kBits - length));
  network.address &= network.mask;
  const bool is_of_nobody = length >= 8 && ntohl(network.address) >> 24 == 0;  // 0.0.0.0 without /0
  return is_of_nobody ? std::nullopt : std::optional(network);
}

bool AllowedNetworks::has(in_addr_t address) const {
  return std::any_of(networks.begin(), networks.end(),
                     [address](const Network& network) { return (address & network.mask) == network.address; });
}

std::string listener_address_problem(std::string_view value) {
  if (parse_listener_address(value)) return "";
  return sstr(
      "listener_address is '%.100s': expected none, or up to %zu different IPv4 addresses and absolute paths of Unix "
      "sockets with commas between them, not those of the daemon's other sockets; no client can connect",
      std::string(value).c_str(), kListenEndpointsMax);
}

std::string listener_allow_problem(std::string_view value) {
  const AllowedNetworks networks(value);
  const std::vector<std::string>& bad = networks.bad_entries();
  if (bad.empty()) return "";
  std::string entries;
  for (size_t i = 0; i < std::min(bad.size(), kEntriesShown); ++i) {
    entries += (i > 0 ? ", '" : "'") + bad[i].substr(0, 40) + "'";
  }
  if (bad.size() > kEntriesShown) entries += sstr(" and %zu more", bad.size() - kEntriesShown);
  return sstr(
      "listener_allow has %s: expected up to %zu networks such as 10.1.0.0/16, 192.0.2.7 or 0.0.0.0/0 with commas "
      "between them; these entries let nobody in",
      entries.c_str(), kAllowedNetworksMax);
}
