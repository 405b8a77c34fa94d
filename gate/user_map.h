#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gate/certificate_names.h"

namespace gate {

/// The file of users: which Windows user a certificate's name may claim besides the name itself.
///
///     # name in the certificate     Windows user that its owner may claim
///     upn:alice@example.com         alice
///     email:bob@example.com         EXAMPLE\bob
///     cn:"Carol Jones"              carol
///     upn:*@example.com             *
///
/// A line is a kind ("upn", "email", "cn"), a colon and a name, then blanks or tabs and the user;
/// text with blanks stands in double quotes. Several lines may have the same name. With "*@" in the
/// place of what stands before the domain, the line is for all names of that domain, and "*" in the
/// user stands for what the name has there. Empty lines and those that begin with # are passed
/// over.
class UserMap {
 public:
  /// Throws std::runtime_error, "FILE:LINE: what is wrong", at the first line that has no meaning:
  /// a map that is not understood whole lets in nobody.
  static UserMap Parse(std::string_view text, const std::string& file);

  /// The same for a file's content. Throws as well when it cannot be read.
  static UserMap Load(const std::string& file);

  /// Whether the owner of `name` may claim `user`.
  bool Allows(const CertificateName& name, std::string_view user) const;

 private:
  struct Entry {
    CertificateName name;
    std::string user;
  };

  static bool Matches(const Entry& entry, const CertificateName& name, std::string_view user);

  std::vector<Entry> entries_;
};

/// The one of `names` that lets its owner claim to be the Windows user `claim`: a name that is the
/// claim itself, letter for letter but for the case of ASCII, or one that `map` maps to it. "user",
/// "DOMAIN\user" and "user@domain" are three different claims; no domain is ever left out to make
/// one fit. Nothing when no name does, when the claim cannot be a name, and for the claim "*",
/// which the daemon's own file takes for everybody.
std::optional<CertificateName> ProofOf(std::string_view claim,
                                       const std::vector<CertificateName>& names,
                                       const UserMap& map);

}  // namespace gate
