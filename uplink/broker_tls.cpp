#include "uplink/broker_tls.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {
// What OpenSSL says about a failure, whose errors are then forgotten.
std::string reason() {
  const char* const text = ERR_reason_error_string(ERR_peek_error());
  ERR_clear_error();
  return text != nullptr ? text : "unknown error";
}
}  // namespace

std::string why_unreadable(const std::string& file) {
  struct stat status {};
  const bool is_there = stat(file.c_str(), &status) == 0;
  if (is_there && !S_ISREG(status.st_mode)) return file + " is not a regular file";
  if (is_there && access(file.c_str(), R_OK) == 0) return {};
  return "failed to open " + file + ": " + std::generic_category().message(errno);
}

std::string BrokerTls::open(const UplinkSettings& settings) {
  ERR_clear_error();
  forget();
  made.reset(SSL_CTX_new(TLS_client_method()));
  if (!made) return "failed to set up TLS: " + reason();
  SSL_CTX_set_min_proto_version(made.get(), TLS1_2_VERSION);
  SSL_CTX_set_options(made.get(), SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(made.get(), SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_verify(made.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_app_data(made.get(), this);
  SSL_CTX_set_info_callback(made.get(), on_info);
  // The default asks for a pass phrase at the terminal, and waits.
  SSL_CTX_set_default_passwd_cb(made.get(), [](char*, int, int, void*) { return 0; });
  std::string error = expect(settings.host);
  return error.empty() ? use_files(settings) : error;
}

std::string BrokerTls::expect(const std::string& host) {
  X509_VERIFY_PARAM* const wanted = SSL_CTX_get0_param(made.get());
  server_name.clear();
  if (X509_VERIFY_PARAM_set1_ip_asc(wanted, host.c_str()) == 1) return {};
  server_name = host;
  X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (X509_VERIFY_PARAM_set1_host(wanted, host.data(), host.size()) == 1) return {};
  return "failed to set up TLS: " + reason();
}

std::string BrokerTls::use_files(const UplinkSettings& settings) const {
  for (const std::string* const file : {&settings.ca, &settings.cert, &settings.key}) {
    std::string error = file->empty() ? std::string() : why_unreadable(*file);
    if (!error.empty()) return error;
  }
  if (settings.ca.empty()) {
    SSL_CTX_set_default_verify_paths(made.get());
  } else if (SSL_CTX_load_verify_locations(made.get(), settings.ca.c_str(), nullptr) != 1) {
    return "failed to read certificates from " + settings.ca + ": " + reason();
  }
  if (settings.cert.empty()) return {};
  if (SSL_CTX_use_certificate_chain_file(made.get(), settings.cert.c_str()) != 1) {
    return "failed to read a certificate from " + settings.cert + ": " + reason();
  }
  if (SSL_CTX_use_PrivateKey_file(made.get(), settings.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(made.get()) != 1) {
    return "failed to use the key in " + settings.key + " with " + settings.cert + ": " + reason();
  }
  return {};
}

// At the start of a handshake the library for MQTT has named the address that it connects to; the broker is to be told
// its name. An alert says, at either end, why a handshake fails.
void BrokerTls::on_info(const SSL* connection, int where, int value) {
  auto* const self = static_cast<BrokerTls*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(connection)));
  if ((where & SSL_CB_HANDSHAKE_START) != 0) {
    SSL* const starting = const_cast<SSL*>(connection);  // OpenSSL's own type for callbacks that may change it
    SSL_set_tlsext_host_name(starting, self->server_name.empty() ? nullptr : self->server_name.data());
  }
  if ((where & SSL_CB_HANDSHAKE_DONE) != 0) self->established = true;
  const bool is_fatal = (where & SSL_CB_ALERT) != 0 && value >> 8 == SSL3_AL_FATAL;
  if (!is_fatal || !self->said.empty()) return;
  const long verdict = SSL_get_verify_result(connection);
  if ((where & SSL_CB_WRITE) == 0) {
    self->said = std::string("the broker ended TLS: ") + SSL_alert_desc_string_long(value);
  } else if (verdict != X509_V_OK) {
    self->said = std::string("the broker's certificate is not accepted: ") + X509_verify_cert_error_string(verdict);
  } else {
    self->said = std::string("the TLS handshake failed: ") + SSL_alert_desc_string_long(value);
  }
}
