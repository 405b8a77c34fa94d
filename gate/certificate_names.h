#pragma once

#include <openssl/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gate {

/// Where in a certificate a name stands. Names of different kinds are never the same name: an
/// authority may vouch for user principal names and let people choose their e-mail addresses.
enum class NameKind { kUpn, kEmail, kCommonName };

/// "upn", "email", "cn": as the file of users spells them.
std::string_view Word(NameKind kind);
std::optional<NameKind> KindOf(std::string_view word);

struct CertificateName {
  NameKind kind = NameKind::kUpn;
  std::string text;

  friend bool operator==(const CertificateName&, const CertificateName&) = default;
};

/// "upn:alice@example.com".
std::string Text(const CertificateName& name);

/// What a certificate says about its owner.
struct CertificateNames {
  std::vector<CertificateName> names;
  int unreadable = 0;  ///< names that were left out, and extensions that were no good
};

/// The user principal names and e-mail addresses among the subject's alternative names, and with
/// `common_name` the subject's common name if it has exactly one. A name that is empty, longer than
/// 255 bytes, no valid UTF-8, or holds a zero byte or another control character proves nothing: it
/// is left out whole rather than cut. So is a user principal name of another type than UTF8String.
/// An extension that stands there twice gives no names.
///
/// The caller has verified the certificate.
CertificateNames NamesOf(const X509& certificate, bool common_name);

/// Whether `text` can be a name: 1 to 255 bytes of UTF-8 without control characters.
bool IsCleanName(std::string_view text);

/// Whether two names are the same but for the case of ASCII letters. Nothing else is folded: a
/// dotless i is no i, and a full-width letter is no letter of ASCII.
bool SameName(std::string_view a, std::string_view b);

/// The form in which names that are the same are equal.
std::string Folded(std::string_view name);

}  // namespace gate
