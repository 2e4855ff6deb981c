// TLS as the uplink uses it toward the broker: 1.2 or later, the broker's certificate and host name always verified.
// The library for MQTT has settings of its own for that, but connects only to the host that it verifies, looks that up
// itself, waiting, and keeps to itself why a handshake failed.
#pragma once

#include <openssl/ssl.h>
#include <memory>
#include <string>

#include "uplink/uplink_settings.h"

// Why `file` cannot be used, as a sentence; empty when it is a regular file that can be read. Opening anything else
// could wait for ever. Any thread.
std::string why_unreadable(const std::string& file);

// One thread only.
class BrokerTls {
 public:
  BrokerTls() = default;
  BrokerTls(const BrokerTls&) = delete;
  BrokerTls& operator=(const BrokerTls&) = delete;
  ~BrokerTls() = default;

  // Reads `ca`, `cert` and `key` as they are now; without `ca` the system's authorities count. Returns what is wrong
  // with them, or nothing. Connections of before must be gone.
  std::string open(const UplinkSettings& settings);

  // What open() has made, owned by this object. A connection with it asks for and verifies the settings' host, whatever
  // address it goes to.
  SSL_CTX* context() const { return made.get(); }

  // Why the last handshake failed, as far as OpenSSL or the broker has said so; else empty.
  const std::string& trouble() const { return said; }
  // Whether the last handshake was completed at our end.
  bool is_established() const { return established; }
  // Call before each connection.
  void forget() {
    said.clear();
    established = false;
  }

 private:
  std::string use_files(const UplinkSettings& settings) const;
  std::string expect(const std::string& host);
  static void on_info(const SSL* connection, int where, int value);

  struct Free {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  std::unique_ptr<SSL_CTX, Free> made;
  std::string server_name;  // empty: the host is an address
  std::string said;
  bool established = false;
};
