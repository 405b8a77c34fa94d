#include "gate/certificate_names.h"

#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdint>
#include <memory>

namespace gate {
namespace {

constexpr std::size_t kLongestName = 255;

struct Row {
  NameKind kind;
  std::string_view word;
};
constexpr Row kKinds[] = {
    {NameKind::kUpn, "upn"}, {NameKind::kEmail, "email"}, {NameKind::kCommonName, "cn"}};

// How many bytes the UTF-8 character at the beginning of `text` has; 0 when there is none. Overlong
// forms, surrogates and what lies above U+10FFFF are no characters.
std::size_t CharacterSize(std::string_view text) {
  const auto byte = [&](std::size_t i) -> std::uint32_t {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const auto follows = [&](std::size_t i) { return (byte(i) & 0xC0U) == 0x80U; };
  const std::uint32_t first = byte(0);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first < 0xE0) return follows(1) ? 2 : 0;
  if (first >= 0xE0 && first < 0xF0) {
    const bool overlong = first == 0xE0 && byte(1) < 0xA0;
    const bool surrogate = first == 0xED && byte(1) >= 0xA0;
    return follows(1) && follows(2) && !overlong && !surrogate ? 3 : 0;
  }
  if (first >= 0xF0 && first < 0xF5) {
    const bool overlong = first == 0xF0 && byte(1) < 0x90;
    const bool above = first == 0xF4 && byte(1) >= 0x90;
    return follows(1) && follows(2) && follows(3) && !overlong && !above ? 4 : 0;
  }
  return 0;
}

bool IsControl(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first < 0x20 || first == 0x7F;
  // U+0080 to U+009F, which terminals obey.
  return character.size() == 2 && first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

void Add(NameKind kind, std::string_view text, CertificateNames& found) {
  if (IsCleanName(text)) {
    found.names.push_back({kind, std::string(text)});
  } else {
    ++found.unreadable;
  }
}

// All bytes, not those up to a zero byte: a name cut there could be somebody else's.
std::string_view BytesOf(const ASN1_STRING* string) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
          static_cast<std::size_t>(ASN1_STRING_length(string))};
}

void AddAlternativeName(GENERAL_NAME* name, CertificateNames& found) {
  if (name->type == GEN_EMAIL) {
    const std::string_view text = BytesOf(name->d.rfc822Name);
    // An IA5String has ASCII alone. A name with other bytes is added as an empty one, which Add()
    // counts as unreadable.
    const bool ascii =
        std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
    Add(NameKind::kEmail, ascii ? text : std::string_view(), found);
    return;
  }
  if (name->type != GEN_OTHERNAME || OBJ_obj2nid(name->d.otherName->type_id) != NID_ms_upn) return;
  const ASN1_TYPE* value = name->d.otherName->value;
  const bool text = value != nullptr && value->type == V_ASN1_UTF8STRING;
  Add(NameKind::kUpn, text ? BytesOf(value->value.utf8string) : std::string_view(), found);
}

void AddCommonName(const X509& certificate, CertificateNames& found) {
  const X509_NAME* subject = X509_get_subject_name(&certificate);
  const int place = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (place < 0) return;
  if (X509_NAME_get_index_by_NID(subject, NID_commonName, place) >= 0) {
    ++found.unreadable;
    return;
  }
  const ASN1_STRING* string = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, place));
  unsigned char* text = nullptr;
  const int size = ASN1_STRING_to_UTF8(&text, string);
  const std::string_view bytes =
      size > 0 ? std::string_view(reinterpret_cast<char*>(text), static_cast<std::size_t>(size))
               : std::string_view();
  Add(NameKind::kCommonName, bytes, found);
  OPENSSL_free(text);
}

}  // namespace

std::string_view Word(NameKind kind) {
  for (const Row& row : kKinds) {
    if (row.kind == kind) return row.word;
  }
  return "";
}

std::optional<NameKind> KindOf(std::string_view word) {
  for (const Row& row : kKinds) {
    if (row.word == word) return row.kind;
  }
  return std::nullopt;
}

std::string Text(const CertificateName& name) {
  return std::string(Word(name.kind)) + ":" + name.text;
}

CertificateNames NamesOf(const X509& certificate, bool common_name) {
  CertificateNames found;
  int critical = 0;
  const std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> names(
      static_cast<GENERAL_NAMES*>(
          X509_get_ext_d2i(&certificate, NID_subject_alt_name, &critical, nullptr)),
      GENERAL_NAMES_free);
  // -1 says that there is no such extension. Otherwise no result means that it is broken, or there
  // twice.
  if (names == nullptr && critical != -1) ++found.unreadable;
  for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names.get()); ++i) {
    AddAlternativeName(sk_GENERAL_NAME_value(names.get(), i), found);
  }
  if (common_name) AddCommonName(certificate, found);
  return found;
}

bool IsCleanName(std::string_view text) {
  if (text.empty() || text.size() > kLongestName) return false;
  while (!text.empty()) {
    const std::size_t size = CharacterSize(text);
    if (size == 0 || IsControl(text.substr(0, size))) return false;
    text.remove_prefix(size);
  }
  return true;
}

bool SameName(std::string_view a, std::string_view b) {
  return Folded(a) == Folded(b);
}

std::string Folded(std::string_view name) {
  std::string folded(name);
  std::transform(folded.begin(), folded.end(), folded.begin(), Lower);
  return folded;
}

}  // namespace gate
