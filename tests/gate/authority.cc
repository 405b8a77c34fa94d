#include "tests/gate/authority.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <utility>

namespace {

void Demand(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string("test certificates: ") + what);
}

std::shared_ptr<EVP_PKEY> NewKey() {
  std::shared_ptr<EVP_PKEY> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  Demand(key != nullptr, "no key");
  return key;
}

void AddExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::shared_ptr<X509_EXTENSION> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()), X509_EXTENSION_free);
  Demand(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1,
         value.c_str());
}

void AddCommonName(X509* certificate, int type, const std::string& bytes) {
  if (bytes.empty()) return;
  Demand(X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate), NID_commonName, type,
                                    reinterpret_cast<const unsigned char*>(bytes.data()),
                                    static_cast<int>(bytes.size()), -1, 0) == 1,
         "no common name");
}

void AddName(GENERAL_NAMES* names, GENERAL_NAME* name) {
  Demand(name != nullptr && sk_GENERAL_NAME_push(names, name) > 0, "no name");
}

ASN1_STRING* StringOf(int type, const std::string& bytes) {
  ASN1_STRING* string = ASN1_STRING_type_new(type);
  ASN1_STRING_set(string, bytes.data(), static_cast<int>(bytes.size()));
  return string;
}

GENERAL_NAME* OtherName(int kind, int type, const std::string& bytes) {
  GENERAL_NAME* name = GENERAL_NAME_new();
  ASN1_TYPE* value = ASN1_TYPE_new();
  ASN1_TYPE_set(value, type, StringOf(type, bytes));
  GENERAL_NAME_set0_othername(name, OBJ_nid2obj(kind), value);
  return name;
}

GENERAL_NAME* PlainName(int kind, int type, const std::string& bytes) {
  GENERAL_NAME* name = GENERAL_NAME_new();
  GENERAL_NAME_set0_value(name, kind, StringOf(type, bytes));
  return name;
}

// Names are put together by hand: configuration text could not hold a zero byte.
void AddAlternativeNames(X509* certificate, const Subject& subject) {
  const std::shared_ptr<GENERAL_NAMES> names(sk_GENERAL_NAME_new_null(), GENERAL_NAMES_free);
  if (!subject.upn.empty()) {
    AddName(names.get(), OtherName(NID_ms_upn, subject.upn_type, subject.upn));
  }
  if (!subject.other_name.empty()) {
    AddName(names.get(),
            OtherName(NID_id_on_permanentIdentifier, V_ASN1_UTF8STRING, subject.other_name));
  }
  if (!subject.email.empty()) {
    AddName(names.get(), PlainName(GEN_EMAIL, V_ASN1_IA5STRING, subject.email));
  }
  if (!subject.host.empty()) {
    AddName(names.get(), PlainName(GEN_DNS, V_ASN1_IA5STRING, subject.host));
  }
  if (!subject.address.empty()) {
    GENERAL_NAME* name = GENERAL_NAME_new();
    GENERAL_NAME_set0_value(name, GEN_IPADD, a2i_IPADDRESS(subject.address.c_str()));
    AddName(names.get(), name);
  }
  if (sk_GENERAL_NAME_num(names.get()) == 0) return;
  for (int i = 0; i < (subject.names_twice ? 2 : 1); ++i) {
    Demand(X509_add1_ext_i2d(certificate, NID_subject_alt_name, names.get(), 0,
                             X509V3_ADD_APPEND) == 1,
           "no extension");
  }
}

void WriteFile(const std::string& file, bool secret, const std::function<bool(std::FILE*)>& write) {
  const std::shared_ptr<std::FILE> out(std::fopen(file.c_str(), "wb"), std::fclose);
  Demand(out != nullptr && write(out.get()), file.c_str());
  if (secret) {
    std::filesystem::permissions(
        file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
}

long SerialOf(const std::string& file) {
  const std::shared_ptr<std::FILE> in(std::fopen(file.c_str(), "rb"), std::fclose);
  const std::shared_ptr<X509> certificate(PEM_read_X509(in.get(), nullptr, nullptr, nullptr),
                                          X509_free);
  return ASN1_INTEGER_get(X509_get0_serialNumber(certificate.get()));
}

}  // namespace

Authority::Authority(std::string directory, std::string name, Authority* above)
    : directory_(std::move(directory)), name_(std::move(name)), above_(above), key_(NewKey()) {
  Subject subject;
  subject.common_name = name_;
  subject.purpose.clear();
  Authority& signer = above_ != nullptr ? *above_ : *this;
  certificate_ = signer.Make(subject, key_.get(), true);
  file_ = directory_ + "/" + name_ + ".pem";
  WriteFile(file_, false,
            [&](std::FILE* out) { return PEM_write_X509(out, certificate_.get()) == 1; });
}

std::shared_ptr<X509> Authority::Make(const Subject& subject, EVP_PKEY* key, bool authority) {
  std::shared_ptr<X509> made(X509_new(), X509_free);
  X509* issuer = certificate_ ? certificate_.get() : made.get();
  X509_set_version(made.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(made.get()), serial_++);
  X509_gmtime_adj(X509_getm_notBefore(made.get()), subject.from);
  X509_gmtime_adj(X509_getm_notAfter(made.get()), subject.until);
  X509_set_pubkey(made.get(), key);
  AddCommonName(made.get(), subject.common_name_type, subject.common_name);
  AddCommonName(made.get(), subject.common_name_type, subject.second_common_name);
  X509_set_issuer_name(made.get(), X509_get_subject_name(issuer));
  AddExtension(made.get(), issuer, NID_basic_constraints,
               authority ? "critical,CA:TRUE" : "CA:FALSE");
  if (authority) AddExtension(made.get(), issuer, NID_key_usage, "keyCertSign,cRLSign");
  if (!subject.purpose.empty())
    AddExtension(made.get(), issuer, NID_ext_key_usage, subject.purpose);
  AddAlternativeNames(made.get(), subject);
  Demand(X509_sign(made.get(), key_.get(), EVP_sha256()) > 0, "not signed");
  return made;
}

std::shared_ptr<X509> Authority::Certificate(const Subject& subject) {
  return Make(subject, NewKey().get(), false);
}

Identity Authority::Write(const std::string& file, X509* certificate, EVP_PKEY* key) const {
  const std::string base = directory_ + "/" + file;
  WriteFile(base + ".pem", false, [&](std::FILE* out) {
    bool written = PEM_write_X509(out, certificate) == 1;
    for (const Authority* issuer = this; issuer->above_ != nullptr; issuer = issuer->above_) {
      written = written && PEM_write_X509(out, issuer->certificate_.get()) == 1;
    }
    return written;
  });
  WriteFile(base + ".key", true, [&](std::FILE* out) {
    return PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  });
  return {base + ".pem", base + ".key"};
}

Identity Authority::Issue(const std::string& file, const Subject& subject) {
  const std::shared_ptr<EVP_PKEY> key = NewKey();
  return Write(file, Make(subject, key.get(), false).get(), key.get());
}

Identity Authority::Renew(const Identity& identity, const std::string& file,
                          const Subject& subject) {
  const std::shared_ptr<std::FILE> in(std::fopen(identity.key.c_str(), "rb"), std::fclose);
  const std::shared_ptr<EVP_PKEY> key(PEM_read_PrivateKey(in.get(), nullptr, nullptr, nullptr),
                                      EVP_PKEY_free);
  Demand(key != nullptr, "no key to renew");
  return Write(file, Make(subject, key.get(), false).get(), key.get());
}

void Authority::Revoke(const Identity& identity) {
  revoked_.push_back(SerialOf(identity.certificate));
}

std::string Authority::List(const std::string& file, long from, std::optional<long> until) {
  const std::shared_ptr<X509_CRL> list(X509_CRL_new(), X509_CRL_free);
  X509_CRL_set_version(list.get(), X509_CRL_VERSION_2);
  X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(certificate_.get()));
  const std::shared_ptr<ASN1_TIME> time(X509_gmtime_adj(nullptr, from), ASN1_TIME_free);
  X509_CRL_set1_lastUpdate(list.get(), time.get());
  if (until) {
    X509_gmtime_adj(time.get(), *until);
    X509_CRL_set1_nextUpdate(list.get(), time.get());
  }
  for (const long serial : revoked_) {
    X509_REVOKED* entry = X509_REVOKED_new();
    const std::shared_ptr<ASN1_INTEGER> number(ASN1_INTEGER_new(), ASN1_INTEGER_free);
    ASN1_INTEGER_set(number.get(), serial);
    X509_REVOKED_set_serialNumber(entry, number.get());
    X509_gmtime_adj(time.get(), from);
    X509_REVOKED_set_revocationDate(entry, time.get());
    X509_CRL_add0_revoked(list.get(), entry);
  }
  X509_CRL_sort(list.get());
  Demand(X509_CRL_sign(list.get(), key_.get(), EVP_sha256()) > 0, "list not signed");
  std::string path = directory_ + "/" + file;
  WriteFile(path, false, [&](std::FILE* out) { return PEM_write_X509_CRL(out, list.get()) == 1; });
  return path;
}
