#pragma once

#include <openssl/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A certificate and its key, as files.
struct Identity {
  std::string certificate;
  std::string key;
};

/// What a certificate of a test says.
struct Subject {
  std::string common_name = "somebody";  ///< none when it is empty
  std::string second_common_name = {};
  int common_name_type = 0x1000;  ///< MBSTRING_UTF8, or the type of a string as its bytes
  std::string upn = {};           ///< a user principal name, as its bytes
  std::string email = {};         ///< as its bytes
  std::string host = {};          ///< a DNS name
  std::string address = {};       ///< an IP address
  std::string purpose = "clientAuth,serverAuth";
  long from = -3600;  ///< seconds from now
  long until = 3600;
  int upn_type = 12;            ///< V_ASN1_UTF8STRING
  std::string other_name = {};  ///< the value of an otherName of a kind that is no name
  bool names_twice = false;     ///< the whole extension stands there twice
};

/// An authority of a test. It writes into `directory`, under names that begin with its own.
class Authority {
 public:
  Authority(std::string directory, std::string name, Authority* above = nullptr);

  /// A certificate and its key; the file of the first holds those between it and the root, too.
  Identity Issue(const std::string& file, const Subject& subject);

  /// The same again for the key of `identity`.
  Identity Renew(const Identity& identity, const std::string& file, const Subject& subject);

  /// The certificate alone, not in a file.
  std::shared_ptr<X509> Certificate(const Subject& subject);

  /// From the next list on.
  void Revoke(const Identity& identity);

  /// A list of what is revoked, valid from `from` until `until` seconds from now, or for ever.
  std::string List(const std::string& file, long from = -3600, std::optional<long> until = 3600);

  /// The authority's own certificate.
  const std::string& file() const { return file_; }

 private:
  std::shared_ptr<X509> Make(const Subject& subject, EVP_PKEY* key, bool authority);
  Identity Write(const std::string& file, X509* certificate, EVP_PKEY* key) const;

  std::string directory_;
  std::string name_;
  Authority* above_;
  std::shared_ptr<EVP_PKEY> key_;
  std::shared_ptr<X509> certificate_;
  std::string file_;
  long serial_ = 1;
  std::vector<long> revoked_;
};
