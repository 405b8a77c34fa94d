#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

STACK_OF(X509);

namespace gate {

struct TlsFiles {
  std::string certificate;               ///< the gate's own and what leads to its authority, PEM
  std::string key;                       ///< of that certificate, PEM
  std::vector<std::string> authorities;  ///< whose certificates are believed, PEM
  std::vector<std::string> revocations;  ///< lists of revoked certificates, PEM; of every authority
};

/// A list of revoked certificates that was loaded.
struct RevocationList {
  std::string file;
  std::string issuer;
  std::int64_t next_update = 0;  ///< seconds since 1970
};

/// What TLS needs besides a connection: TLS 1.3 alone, a certificate from both sides, no resumption
/// of TLS sessions. A resumed session would skip the look at the certificate, which may have been
/// revoked since.
///
/// A new certificate, authority or revocation list takes a new context. Connections keep the one
/// with which they began.
class TlsContext {
 public:
  enum class Role { kServe, kConnect };

  /// Reads all files. Throws std::runtime_error with a sentence that names the file: when one
  /// cannot be read, holds nothing that it should, is a key of another certificate, or one that
  /// others than its owner and his group may read.
  static std::shared_ptr<const TlsContext> Load(const TlsFiles& files, Role role);

  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;
  ~TlsContext();

  SSL_CTX* get() const { return context_; }
  Role role() const { return role_; }
  const std::vector<RevocationList>& revocations() const { return revocations_; }

  /// Judges once more a master's chain that an earlier context has accepted, with this context's
  /// authorities and revocation lists. Empty when it is still good, otherwise a sentence. Time is
  /// not looked at: a link outlives the day on which its certificate, or the list, expires, until
  /// it has to be resumed.
  std::string WhyRefused(X509* certificate, STACK_OF(X509) * chain) const;

 private:
  explicit TlsContext(Role role);

  void LoadOwn(const TlsFiles& files);
  void LoadAuthorities(const std::vector<std::string>& files);
  void LoadRevocations(const std::vector<std::string>& files);

  Role role_;
  SSL_CTX* context_;
  std::vector<RevocationList> revocations_;
};

/// A sentence for an administrator or an engineer about what is wrong with a certificate, by
/// X509_V_ERR_...
std::string CertificateSentence(long error);

/// What TakeTlsErrors() gives when the peer has refused this side's certificate because it was
/// revoked.
extern const char* const kRevokedHere;

/// Says what the errors mean that OpenSSL has collected in this thread, and forgets them. An alert
/// by which the peer refused this side's certificate becomes a sentence.
std::string TakeTlsErrors();

}  // namespace gate
