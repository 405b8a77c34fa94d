// Who may come in: the names of a certificate, whose text anybody may have chosen, and the claim in
// the bytes of a master, in pieces. Each name is one or proves nothing, the claim is the line that
// the daemon would take, and it is proven by the first name that the rules let claim it.

#include <openssl/asn1.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/input.h"
#include "fuzz/support/promise.h"
#include "gate/claim.h"
#include "gate/user_map.h"

namespace {

using gate::CertificateName;
using gate::Claim;
using gate::NameKind;

// The line lets the owner of NAME@d claim to be NAME.
constexpr const char* kUsers = "upn:*@d *\n";

bool IsName(std::string_view text) {
  if (text.empty() || text.size() > 255) return false;
  constexpr std::uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
  while (!text.empty()) {
    const auto first = static_cast<unsigned char>(text[0]);
    const unsigned more = first < 0x80 ? 0 : first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
    if ((first >= 0x80 && first < 0xC0) || first >= 0xF8 || text.size() <= more) return false;
    std::uint32_t number = more == 0 ? first : first & (0x3FU >> more);
    for (const char byte : text.substr(1, more)) {
      if ((byte & 0xC0) != 0x80) return false;
      number = number << 6U | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    const bool control = number < 0x20 || (number >= 0x7F && number < 0xA0);
    const bool surrogate = number >= 0xD800 && number < 0xE000;
    if (number < kLeast[more] || number > 0x10FFFF || control || surrogate) return false;
    text.remove_prefix(1 + more);
  }
  return true;
}

std::string Small(std::string_view text) {
  std::string small(text);
  for (char& c : small) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return small;
}

// DER: a tag, the length, and what it is the length of.
std::string Der(unsigned char tag, std::string_view content) {
  std::string bytes(1, static_cast<char>(tag));
  if (content.size() >= 128) bytes += '\x82';
  if (content.size() >= 128) bytes += static_cast<char>(content.size() >> 8U);
  bytes += static_cast<char>(content.size());
  return bytes.append(content);
}

// A certificate of which nothing is made but its alternative names, and what they have to give.
struct Certificate {
  void Add(std::uint8_t kind, std::string_view text) {
    constexpr std::string_view kUpn("\x06\x0a\x2b\x06\x01\x04\x01\x82\x37\x14\x02\x03", 12);
    const bool ascii = std::ranges::none_of(text, [](char c) { return (c & 0x80) != 0; });
    switch (kind % 4) {
      case 0:
        names += Der(0xA0, std::string(kUpn) + Der(0xA0, Der(V_ASN1_UTF8STRING, text)));
        return Expect(NameKind::kUpn, text, true);
      case 1:
        names += Der(0xA0, std::string(kUpn) + Der(0xA0, Der(V_ASN1_IA5STRING, text)));
        return Expect(NameKind::kUpn, text, false);
      case 2:
        names += Der(0x81, text);
        return Expect(NameKind::kEmail, text, ascii);
      default:
        names += Der(0x82, text);  // a host
    }
  }

  void Expect(NameKind kind, std::string_view text, bool may) {
    if (may && IsName(text)) {
      expected.names.push_back({kind, std::string(text)});
    } else {
      ++expected.unreadable;
    }
  }

  gate::CertificateNames Read() const {
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    const std::unique_ptr<ASN1_OCTET_STRING, decltype(&ASN1_OCTET_STRING_free)> value(
        ASN1_OCTET_STRING_new(), ASN1_OCTET_STRING_free);
    const std::string whole = Der(0x30, names);
    ASN1_OCTET_STRING_set(value.get(), reinterpret_cast<const unsigned char*>(whole.data()),
                          static_cast<int>(whole.size()));
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
        X509_EXTENSION_create_by_NID(nullptr, NID_subject_alt_name, 0, value.get()),
        X509_EXTENSION_free);
    PROMISE(X509_add_ext(certificate.get(), extension.get(), -1) == 1);
    return gate::NamesOf(*certificate, false);
  }

  std::string names;
  gate::CertificateNames expected;
};

struct Said {
  Claim::State state = Claim::State::kOpen;
  std::string user;
  std::size_t version_bytes = 0;
};

bool IsNumberAboveZero(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
  text = text.substr(0, text.find_first_not_of("0123456789"));
  return text.find_first_not_of('0') != std::string_view::npos;
}

// What the bytes claim, of which `limit` may be looked at.
Said Expected(std::string_view bytes, std::size_t limit) {
  Said open{bytes.size() > limit ? Claim::State::kTooLong : Claim::State::kOpen, {}, 0};
  std::size_t begin = 0;
  for (int line = 0;; ++line) {
    const std::string_view head = bytes.substr(begin, 4);
    if (head.size() < 4) return open;
    std::int64_t length = 0;
    for (std::size_t i = 4; i-- > 0;) length = length * 256 + static_cast<unsigned char>(head[i]);
    if (length > 0x7FFFFFFF) length = 0;  // it is negative
    if (begin + 4 > limit || length > 32767) return {Claim::State::kTooLong, {}, 0};
    const std::string_view text = bytes.substr(begin + 4, static_cast<std::size_t>(length));
    if (text.size() < static_cast<std::size_t>(length)) return open;
    begin += 4 + text.size();
    if (begin > limit) return {Claim::State::kTooLong, {}, 0};
    if (line == 0 && !IsNumberAboveZero(text)) return {Claim::State::kNotAMaster, {}, begin};
    if (line == 6) return {Claim::State::kClaimed, std::string(text.substr(0, 256)), 0};
  }
}

std::optional<CertificateName> Proof(const std::string& claim,
                                     const std::vector<CertificateName>& names) {
  if (!IsName(claim) || claim == "*") return std::nullopt;
  for (const CertificateName& name : names) {
    const std::string text = Small(name.text);
    if (text == Small(claim)) return name;
    if (name.kind == NameKind::kUpn && text == Small(claim) + "@d") return name;
  }
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const gate::UserMap users = gate::UserMap::Parse(kUsers, "users");
  Input input(data, size);
  const std::size_t piece = 1 + input.Byte();
  const std::size_t limit = std::size_t{4} * input.Byte();
  Certificate certificate;
  for (int names = input.Byte() % 4; names > 0; --names) {
    const std::uint8_t kind = input.Byte();
    certificate.Add(kind, input.Take(input.Short() % 300));
  }
  const gate::CertificateNames names = certificate.Read();
  PROMISE(names.names == certificate.expected.names);
  PROMISE(names.unreadable == certificate.expected.unreadable);

  const std::string_view bytes = input.Rest();
  Claim claim(limit);
  for (std::size_t i = 0; i < bytes.size(); i += piece) claim.Read(bytes.substr(i, piece));
  const Said said = Expected(bytes, limit);
  PROMISE(claim.state() == said.state);
  if (said.state == Claim::State::kNotAMaster) PROMISE(claim.version_bytes() == said.version_bytes);
  if (said.state != Claim::State::kClaimed) return 0;
  PROMISE(claim.user() == said.user);
  PROMISE(gate::ProofOf(claim.user(), names.names, users) == Proof(said.user, names.names));
  const std::string refusal = gate::NotProvenText(claim.user(), names);
  PROMISE(std::ranges::all_of(refusal, [](char c) { return c >= ' ' && c <= '~'; }));
  return 0;
}
