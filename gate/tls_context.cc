#include "gate/tls_context.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>

namespace gate {
namespace {

// What a peer may send as its certificates, before it is known. Chains have two or three, of 2 KiB
// each.
constexpr long kMostOfChain = 32768;

// An end of a link that waits has nothing to say for hours. Its buffers, 34 KiB, go back meanwhile.
constexpr long kModes =
    SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;

struct CertificateError {
  long error;
  const char* sentence;
};

constexpr CertificateError kCertificateErrors[] = {
    {X509_V_ERR_CERT_HAS_EXPIRED, "The certificate has expired"},
    {X509_V_ERR_CERT_NOT_YET_VALID, "The certificate is not valid yet: look at the clocks"},
    {X509_V_ERR_CERT_REVOKED, "The certificate has been revoked"},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
     "The certificate is of no authority that is believed here, or the peer's file lacks the "
     "certificate of an authority in between"},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT,
     "The certificate of the authority above one that is believed here is missing"},
    {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE,
     "The certificate is of no authority that is believed here, or the peer's file lacks the "
     "certificate of an authority in between"},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,
     "The certificate is signed by its own key and by no authority"},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN,
     "The certificate is of an authority that is not believed here"},
    {X509_V_ERR_INVALID_PURPOSE,
     "The certificate is not for this purpose: its extended key usage has to allow clientAuth in a "
     "master's, serverAuth in the serving gate's"},
    {X509_V_ERR_CERT_SIGNATURE_FAILURE, "The certificate's signature is not its authority's"},
    {X509_V_ERR_CERT_UNTRUSTED, "The certificate is not trusted for this purpose"},
    {X509_V_ERR_CERT_REJECTED, "The certificate is rejected for this purpose"},
    {X509_V_ERR_INVALID_CA, "A certificate between this one and the authority is no authority's"},
    {X509_V_ERR_CERT_CHAIN_TOO_LONG, "There are too many authorities above the certificate"},
    {X509_V_ERR_EE_KEY_TOO_SMALL, "The certificate's key is too short"},
    {X509_V_ERR_CA_MD_TOO_WEAK, "A certificate of the chain is signed with a weak digest"},
    {X509_V_ERR_HOSTNAME_MISMATCH,
     "The serving gate's certificate is not for the host that was asked for"},
    {X509_V_ERR_IP_ADDRESS_MISMATCH,
     "The serving gate's certificate is not for the address that was asked for"},
    {X509_V_ERR_UNABLE_TO_GET_CRL,
     "There is no list of revoked certificates of an authority in the chain: each of them needs "
     "one"},
    {X509_V_ERR_CRL_HAS_EXPIRED, "The list of revoked certificates is too old: load a new one"},
    {X509_V_ERR_CRL_NOT_YET_VALID,
     "The list of revoked certificates is not valid yet: look at the clocks"},
    {X509_V_ERR_CRL_SIGNATURE_FAILURE,
     "The list of revoked certificates is not signed by its authority"},
};

struct PeerError {
  int reason;
  const char* sentence;
};

const PeerError kPeerErrors[] = {
    {SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED, "The other gate says: this certificate has expired"},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED, kRevokedHere},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN,
     "The other gate says: this certificate cannot be accepted"},
    {SSL_R_SSLV3_ALERT_BAD_CERTIFICATE, "The other gate says: this certificate is bad"},
    {SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE,
     "The other gate says: this certificate is not for this purpose"},
    {SSL_R_TLSV1_ALERT_UNKNOWN_CA,
     "The other gate says: this certificate is of no authority that it believes"},
    {SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED, "The other gate asks for a certificate"},
    {SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE, "The peer has no certificate"},
    {SSL_R_WRONG_VERSION_NUMBER, "The peer does not speak TLS"},
    {SSL_R_HTTP_REQUEST, "The peer does not speak TLS"},
    {SSL_R_UNSUPPORTED_PROTOCOL, "The peer does not know TLS 1.3"},
    {SSL_R_TLSV1_ALERT_PROTOCOL_VERSION, "The peer does not know TLS 1.3"},
};

template <typename Item>
using Owned = std::unique_ptr<Item, void (*)(Item*)>;

void CloseBio(BIO* bio) {
  BIO_free_all(bio);
}

[[noreturn]] void Fail(const std::string& file, const std::string& what) {
  const std::string errors = TakeTlsErrors();
  throw std::runtime_error(file + ": " + what + (errors.empty() ? "" : " (" + errors + ")"));
}

// Calls `read` for each item of a PEM file until it gives none, and says how many there were.
// Throws where that was not the end of the file.
int ForEach(const std::string& file, const std::function<bool(BIO*)>& read) {
  ERR_clear_error();
  const Owned<BIO> bio(BIO_new_file(file.c_str(), "rb"), CloseBio);
  if (bio == nullptr) Fail(file, "cannot be read");
  int count = 0;
  while (read(bio.get())) ++count;
  const unsigned long last = ERR_peek_last_error();
  if (ERR_GET_LIB(last) != ERR_LIB_PEM || ERR_GET_REASON(last) != PEM_R_NO_START_LINE) {
    Fail(file, "is broken");
  }
  ERR_clear_error();
  return count;
}

// A key that everybody may read proves nobody. Its group may read it, so that root's file can be
// given to an account of the gate's own.
void CheckKeyIsPrivate([[maybe_unused]] const std::string& file) {
#ifndef _WIN32
  using std::filesystem::perms;
  std::error_code error;
  const perms mode = std::filesystem::status(file, error).permissions();
  if (!error && (mode & (perms::group_write | perms::others_all)) != perms::none) {
    throw std::runtime_error(file + ": others may read or write the key; chmod 0600 or 0640");
  }
#endif
}

// Seconds since 1970; nothing when there is no time, or none that can be read.
std::optional<std::int64_t> TimeOf(const ASN1_TIME* time) {
  int days = 0;
  int seconds = 0;
  const Owned<ASN1_TIME> epoch(ASN1_TIME_set(nullptr, 0), ASN1_TIME_free);
  if (time == nullptr || ASN1_TIME_diff(&days, &seconds, epoch.get(), time) != 1) return {};
  return std::int64_t{days} * 86400 + seconds;
}

std::string OneLine(const X509_NAME* name) {
  const Owned<BIO> bio(BIO_new(BIO_s_mem()), CloseBio);
  // Everything that could end the line or command a terminal is escaped.
  X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253);
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

// OpenSSL takes a certificate that says nothing of its purpose for one of all purposes: one that
// was made for something else would prove its owner here, too.
int HasAPurpose(int good, X509_STORE_CTX* judge) {
  if (good == 0 || X509_STORE_CTX_get_error_depth(judge) > 0) return good;
  X509* certificate = X509_STORE_CTX_get_current_cert(judge);
  if ((X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) != 0) return good;
  X509_STORE_CTX_set_error(judge, X509_V_ERR_INVALID_PURPOSE);
  return 0;
}

// Without this OpenSSL would ask at the terminal for the words that protect the key.
int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*user*/) {
  return 0;
}

}  // namespace

TlsContext::TlsContext(Role role) : role_(role), context_(SSL_CTX_new(TLS_method())) {
  if (context_ == nullptr) throw std::runtime_error("TLS: " + TakeTlsErrors());
  SSL_CTX_set_min_proto_version(context_, TLS1_3_VERSION);
  SSL_CTX_set_max_proto_version(context_, TLS1_3_VERSION);
  SSL_CTX_set_options(context_, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_num_tickets(context_, 0);
  SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_mode(context_, kModes);
  SSL_CTX_set_read_ahead(context_, 1);  // one call for the head of a record and the rest
  SSL_CTX_set_max_cert_list(context_, kMostOfChain);
  SSL_CTX_set_verify(context_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, HasAPurpose);
  SSL_CTX_set_default_passwd_cb(context_, NoPassword);
}

TlsContext::~TlsContext() {
  SSL_CTX_free(context_);
}

std::shared_ptr<const TlsContext> TlsContext::Load(const TlsFiles& files, Role role) {
  std::shared_ptr<TlsContext> context(new TlsContext(role));
  context->LoadOwn(files);
  context->LoadAuthorities(files.authorities);
  context->LoadRevocations(files.revocations);
  return context;
}

void TlsContext::LoadOwn(const TlsFiles& files) {
  ERR_clear_error();
  if (SSL_CTX_use_certificate_chain_file(context_, files.certificate.c_str()) != 1) {
    Fail(files.certificate, "is no certificate that can be used");
  }
  CheckKeyIsPrivate(files.key);
  if (SSL_CTX_use_PrivateKey_file(context_, files.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context_) != 1) {
    Fail(files.key, "is no key of the certificate without a password");
  }
}

void TlsContext::LoadAuthorities(const std::vector<std::string>& files) {
  X509_STORE* store = SSL_CTX_get_cert_store(context_);
  int count = 0;
  for (const std::string& file : files) {
    const int found = ForEach(file, [&](BIO* bio) {
      const Owned<X509> certificate(PEM_read_bio_X509(bio, nullptr, NoPassword, nullptr),
                                    X509_free);
      if (certificate == nullptr) return false;
      if (X509_STORE_add_cert(store, certificate.get()) != 1) Fail(file, "cannot be used");
      // Clients with several certificates choose by these names.
      SSL_CTX_add_client_CA(context_, certificate.get());
      return true;
    });
    if (found == 0) Fail(file, "holds no certificate");
    count += found;
  }
  if (count == 0) throw std::runtime_error("No authority is given: nobody could be believed");
}

void TlsContext::LoadRevocations(const std::vector<std::string>& files) {
  X509_STORE* store = SSL_CTX_get_cert_store(context_);
  for (const std::string& file : files) {
    const int found = ForEach(file, [&](BIO* bio) {
      const Owned<X509_CRL> list(PEM_read_bio_X509_CRL(bio, nullptr, NoPassword, nullptr),
                                 X509_CRL_free);
      if (list == nullptr) return false;
      // Without that time OpenSSL would believe the list for ever, whatever is revoked later.
      const auto next_update = TimeOf(X509_CRL_get0_nextUpdate(list.get()));
      if (!next_update) Fail(file, "does not say when the next list of revoked certificates comes");
      if (X509_STORE_add_crl(store, list.get()) != 1) Fail(file, "cannot be used");
      revocations_.push_back({file, OneLine(X509_CRL_get_issuer(list.get())), *next_update});
      return true;
    });
    if (found == 0) Fail(file, "holds no list of revoked certificates");
  }
  if (!files.empty()) {
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
  }
}

std::string TlsContext::WhyRefused(X509* certificate, STACK_OF(X509) * chain) const {
  const Owned<X509_STORE_CTX> judge(X509_STORE_CTX_new(), X509_STORE_CTX_free);
  if (judge == nullptr ||
      X509_STORE_CTX_init(judge.get(), SSL_CTX_get_cert_store(context_), certificate, chain) != 1 ||
      X509_STORE_CTX_set_default(judge.get(), "ssl_client") != 1) {
    return "The certificate cannot be judged: " + TakeTlsErrors();
  }
  X509_STORE_CTX_set_flags(judge.get(), X509_V_FLAG_NO_CHECK_TIME);
  if (X509_verify_cert(judge.get()) == 1) return "";
  ERR_clear_error();
  return CertificateSentence(X509_STORE_CTX_get_error(judge.get()));
}

const char* const kRevokedHere = "The other gate says: this certificate was revoked";

std::string CertificateSentence(long error) {
  for (const CertificateError& known : kCertificateErrors) {
    if (known.error == error) return known.sentence;
  }
  return std::string("The certificate is refused: ") + X509_verify_cert_error_string(error);
}

std::string TakeTlsErrors() {
  std::string texts;
  while (const unsigned long error = ERR_get_error()) {
    for (const PeerError& known : kPeerErrors) {
      if (ERR_GET_LIB(error) != ERR_LIB_SSL || ERR_GET_REASON(error) != known.reason) continue;
      ERR_clear_error();
      return known.sentence;
    }
    const char* reason = ERR_reason_error_string(error);
    if (reason == nullptr) continue;
    texts += (texts.empty() ? "" : ", ") + std::string(reason);
  }
  return texts;
}

}  // namespace gate
