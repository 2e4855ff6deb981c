// What the settings listener_address and listener_allow say: where the listener listens, and who may connect. What is
// not understood opens nothing and lets nobody in. Any thread.
#pragma once

#include <netinet/in.h>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t kListenEndpointsMax = 16;
constexpr size_t kAllowedNetworksMax = 64;

// Where clients connect: the listener's port at one address, or a Unix socket.
struct ListenEndpoint {
  std::string path;                // of the socket, without DEVICE_ROOT; empty: the port at `address`
  in_addr_t address = INADDR_ANY;  // in network byte order

  // Whether only this machine reaches it.
  bool is_local() const { return !path.empty() || ntohl(address) >> 24 == IN_LOOPBACKNET; }

  // As in the settings.
  std::string text() const;

  // Of a Unix socket: the lock file beside it, "listener.lock" beside "listener.sock".
  std::string lock_path() const;
};

// The endpoints of `value`, such as "127.0.0.1, /run/zelvind/listener.sock"; an empty list for "none". No list when a
// part of it is not understood, or when one of them cannot be open beside another one or the daemon's other sockets.
std::optional<std::vector<ListenEndpoint>> parse_listener_address(std::string_view value);

// The networks of a list, "10.1.0.0/16, 192.0.2.7".
class AllowedNetworks {
 public:
  // Takes the good entries of `list`, at most kAllowedNetworksMax.
  explicit AllowedNetworks(std::string_view list);

  // Whether one of them has `address`, which is in network byte order.
  bool has(in_addr_t address) const;

  // The entries that are not used.
  const std::vector<std::string>& bad_entries() const { return bad; }

 private:
  struct Network {
    in_addr_t address = 0;  // in network byte order, like the mask
    in_addr_t mask = 0;
  };

  static std::optional<Network> parse(std::string_view entry);

  std::vector<Network> networks;
  std::vector<std::string> bad;
};

// What is wrong with a value of each setting, as settings::problem tells it; empty when it is good.
std::string listener_address_problem(std::string_view value);
std::string listener_allow_problem(std::string_view value);
