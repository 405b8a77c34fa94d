#include "gate/tls_socket.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace gate {
namespace {

bool SetHost(SSL* tls, const std::string& host) {
  X509_VERIFY_PARAM* wanted = SSL_get0_param(tls);
  if (X509_VERIFY_PARAM_set1_ip_asc(wanted, host.c_str()) == 1) return true;
  ERR_clear_error();
  X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return X509_VERIFY_PARAM_set1_host(wanted, host.data(), host.size()) == 1 &&
         SSL_set_tlsext_host_name(tls, host.c_str()) == 1;
}

// The SHA-256 `digest` of a certificate, or of its key, in hexadecimal digits.
std::string DigestText(int (*digest)(const X509*, const EVP_MD*, unsigned char*, unsigned*),
                       const X509& certificate) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned size = 0;
  if (digest(&certificate, EVP_sha256(), bytes.data(), &size) != 1) size = 0;
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4U];
    text += kDigits[bytes[i] & 15U];
  }
  return text;
}

}  // namespace

TlsSocket::TlsSocket(std::uintptr_t socket, std::shared_ptr<const TlsContext> context,
                     const std::string& host, std::uint64_t records_per_key)
    : context_(std::move(context)),
      tls_(SSL_new(context_->get())),
      records_per_key_(records_per_key) {
  ERR_clear_error();
  const bool connects = context_->role() == TlsContext::Role::kConnect;
  // The peer of a connecting gate is believed for one host, which has to be said.
  const bool ready = tls_ != nullptr && SSL_set_fd(tls_, static_cast<int>(socket)) == 1 &&
                     (!connects || (!host.empty() && SetHost(tls_, host)));
  if (!ready) {
    SSL_free(tls_);
    throw std::runtime_error("TLS: " + TakeTlsErrors());
  }
  connects ? SSL_set_connect_state(tls_) : SSL_set_accept_state(tls_);
  SSL_set_msg_callback(tls_, CountKeyUpdates);
  SSL_set_msg_callback_arg(tls_, this);
}

void TlsSocket::CountKeyUpdates(int written, int /*version*/, int type, const void* bytes,
                                std::size_t size, SSL* tls, void* self) {
  const bool update = written == 0 && type == SSL3_RT_HANDSHAKE && size > 0 &&
                      *static_cast<const unsigned char*>(bytes) == SSL3_MT_KEY_UPDATE;
  if (!update || ++static_cast<TlsSocket*>(self)->key_updates_ <= kKeyUpdatesInARow) return;
  // As if the peer had said goodbye: a callback cannot fail.
  SSL_set_shutdown(tls, SSL_get_shutdown(tls) | SSL_RECEIVED_SHUTDOWN);
}

TlsSocket::~TlsSocket() {
  SSL_free(tls_);
}

TlsSocket::Result TlsSocket::Outcome(int result, const char* what) {
  const int kind = SSL_get_error(tls_, result);
  if (kind == SSL_ERROR_WANT_READ) return Result::kWantRead;
  if (kind == SSL_ERROR_WANT_WRITE) return Result::kWantWrite;
  const long verified = SSL_get_verify_result(tls_);
  const std::string errors = TakeTlsErrors();
  if (kind == SSL_ERROR_SSL && verified != X509_V_OK) {
    error_ = CertificateSentence(verified);
  } else if (kind == SSL_ERROR_SSL && !errors.empty() && errors != "unexpected eof while reading") {
    error_ = errors;
  } else {
    error_ = std::string("The connection has ended ") + what;
  }
  return Result::kBroken;
}

TlsSocket::Result TlsSocket::Handshake() {
  ERR_clear_error();
  const int result = SSL_do_handshake(tls_);
  return result == 1 ? Result::kDone : Outcome(result, "in the TLS handshake");
}

TlsSocket::Result TlsSocket::Read(std::span<char> buffer, std::size_t& got) {
  ERR_clear_error();
  key_updates_ = 0;
  const int result = SSL_read_ex(tls_, buffer.data(), buffer.size(), &got);
  return result == 1 ? Result::kDone : Outcome(result, "without a word");
}

TlsSocket::Result TlsSocket::Write(std::string_view bytes, std::size_t& put) {
  ERR_clear_error();
  if (records_ >= records_per_key_) {
    records_ = 0;
    SSL_key_update(tls_, SSL_KEY_UPDATE_NOT_REQUESTED);
  }
  const int result = SSL_write_ex(tls_, bytes.data(), bytes.size(), &put);
  if (result != 1) return Outcome(result, "without a word");
  ++records_;
  return Result::kDone;
}

void TlsSocket::SayGoodbye() {
  // One call only: a second one would wait for the peer's goodbye, and fail at bytes before that.
  if (error_.empty() && SSL_is_init_finished(tls_) == 1) SSL_shutdown(tls_);
  ERR_clear_error();
}

X509* TlsSocket::certificate() const {
  return SSL_get0_peer_certificate(tls_);
}

STACK_OF(X509) * TlsSocket::chain() const {
  return SSL_get_peer_cert_chain(tls_);
}

std::string TlsSocket::authority() const {
  const STACK_OF(X509)* verified = SSL_get0_verified_chain(tls_);
  if (verified == nullptr || sk_X509_num(verified) < 2) return "";
  return DigestText(X509_pubkey_digest, *sk_X509_value(verified, 1));
}

std::string FingerprintOf(const X509& certificate) {
  return DigestText(X509_digest, certificate);
}

}  // namespace gate
