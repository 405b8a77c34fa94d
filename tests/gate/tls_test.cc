// Both ends of TLS in one thread over a pair of sockets.

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <signal.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "gate/tls_context.h"
#include "gate/tls_socket.h"
#include "tests/gate/authority.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"

namespace gate {
namespace {

using Result = TlsSocket::Result;
using Role = TlsContext::Role;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kHost = "gate.example.com";

class TlsTest : public testing::Test {
 protected:
  // A write to a peer that has gone is an error, as in the programs.
  TlsTest() { signal(SIGPIPE, SIG_IGN); }

  using Context = std::shared_ptr<const TlsContext>;

  Context Serve() { return TlsContext::Load(Files(server_), Role::kServe); }
  Context Connect() { return TlsContext::Load(Files(client_), Role::kConnect); }
  TlsFiles Files(const Identity& identity) {
    return {identity.certificate, identity.key, {root_.file()}, lists_};
  }

  // Gives both ends, joined, and not yet shaken hands.
  void Join(const Context& serve, const Context& connect, const std::string& host = kHost,
            std::uint64_t records = TlsSocket::kRecordsPerKey) {
    pair_.emplace();
    for (const int end : {pair_->ours.get(), pair_->peer.get()}) fcntl(end, F_SETFL, O_NONBLOCK);
    serving_.emplace(static_cast<std::uintptr_t>(pair_->ours.get()), serve, "", records);
    connecting_.emplace(static_cast<std::uintptr_t>(pair_->peer.get()), connect, host, records);
  }

  // What the serving end came to, and what the connecting one: its handshake is done before the
  // other has judged it, so it reads once more.
  std::pair<std::string, std::string> Shake() {
    Result serving = Result::kWantRead;
    Result connecting = Result::kWantRead;
    for (int i = 0; i < 10; ++i) {
      if (connecting != Result::kDone && connecting != Result::kBroken) {
        connecting = connecting_->Handshake();
      }
      if (serving != Result::kDone && serving != Result::kBroken) serving = serving_->Handshake();
    }
    std::array<char, 1> byte{};
    std::size_t got = 0;
    if (connecting == Result::kDone) connecting = connecting_->Read(byte, got);
    return {serving == Result::kDone ? "done" : serving_->error(),
            connecting == Result::kWantRead ? "done" : connecting_->error()};
  }

  std::pair<std::string, std::string> ShakeAs(const Identity& client) {
    Join(Serve(), TlsContext::Load(Files(client), Role::kConnect));
    return Shake();
  }

  // OpenSSL's object of the connection that shakes hands with this context.
  static SSL* const& InsideOf(const Context& context) {
    static SSL* inside;
    SSL_CTX_set_info_callback(context->get(),
                              [](const SSL* tls, int, int) { inside = const_cast<SSL*>(tls); });
    return inside;
  }

  std::string WhyNotLoaded(const TlsFiles& files) {
    try {
      TlsContext::Load(files, Role::kServe);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "loaded";
  }

  // A key of another algorithm than the certificates', behind a password where `cipher` is given.
  std::string OtherKey(const char* cipher) {
    std::string file = directory_.File(std::string("other") + cipher + ".key");
    const std::shared_ptr<EVP_PKEY> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"),
                                        EVP_PKEY_free);
    const std::shared_ptr<std::FILE> out(std::fopen(file.c_str(), "wb"), std::fclose);
    PEM_write_PrivateKey(out.get(), key.get(), EVP_get_cipherbyname(cipher),
                         reinterpret_cast<const unsigned char*>("word"), 4, nullptr, nullptr);
    chmod(file.c_str(), 0600);
    return file;
  }

  TemporaryDirectory directory_;
  Authority root_{directory_.path().string(), "root"};
  Identity server_ = root_.Issue("server", {.host = kHost, .address = "127.0.0.1"});
  Identity client_ = root_.Issue("client", {.upn = "alice@example.com"});
  std::vector<std::string> lists_;
  std::optional<SocketPair> pair_;
  std::optional<TlsSocket> serving_;
  std::optional<TlsSocket> connecting_;
};

const std::pair<std::string, std::string> kBothDone{"done", "done"};

TEST_F(TlsTest, BothSidesProveThemselves) {
  Join(Serve(), Connect());
  EXPECT_EQ(Shake(), kBothDone);
  ASSERT_NE(serving_->certificate(), nullptr);
  EXPECT_EQ(FingerprintOf(*serving_->certificate()).size(), 64U);
  EXPECT_NE(FingerprintOf(*serving_->certificate()), FingerprintOf(*connecting_->certificate()));
}

TEST_F(TlsTest, BytesPassBothWays) {
  Join(Serve(), Connect());
  ASSERT_EQ(Shake(), kBothDone);
  std::size_t count = 0;
  std::array<char, 64> buffer{};
  EXPECT_EQ(connecting_->Write("to the daemon", count), Result::kDone);
  EXPECT_EQ(count, 13U);
  EXPECT_EQ(serving_->Read(buffer, count), Result::kDone);
  EXPECT_EQ(std::string(buffer.data(), count), "to the daemon");
  EXPECT_EQ(serving_->Read(buffer, count), Result::kWantRead);
  EXPECT_EQ(serving_->Write("back", count), Result::kDone);
  EXPECT_EQ(connecting_->Read(buffer, count), Result::kDone);
  EXPECT_EQ(std::string(buffer.data(), count), "back");
}

TEST_F(TlsTest, ServerIsBelievedForItsHostAlone) {
  Join(Serve(), Connect(), "other.example.com");
  EXPECT_THAT(Shake().second, HasSubstr("not for the host"));
  Join(Serve(), Connect(), "127.0.0.1");
  EXPECT_EQ(Shake(), kBothDone);
  Join(Serve(), Connect(), "127.0.0.2");
  EXPECT_THAT(Shake().second, HasSubstr("not for the address"));
  EXPECT_THROW(Join(Serve(), Connect(), ""), std::runtime_error);
  EXPECT_THROW(Join(Serve(), Connect(), std::string(300, 'x')), std::runtime_error);
}

TEST_F(TlsTest, CertificateOfAnotherAuthorityIsRefusedByBothInASentence) {
  Authority other(directory_.path().string(), "other");
  const auto [serving, connecting] = ShakeAs(other.Issue("stranger", {}));
  EXPECT_THAT(serving, HasSubstr("no authority that is believed here"));
  EXPECT_THAT(connecting, HasSubstr("The other gate says"));
}

TEST_F(TlsTest, ExpiredCertificateIsRefused) {
  const auto [serving, connecting] = ShakeAs(root_.Issue("old", {.from = -7200, .until = -3600}));
  EXPECT_EQ(serving, "The certificate has expired");
  EXPECT_EQ(connecting, "The other gate says: this certificate has expired");
}

TEST_F(TlsTest, CertificateOfTomorrowIsRefused) {
  EXPECT_THAT(ShakeAs(root_.Issue("early", {.from = 3600, .until = 7200})).first,
              HasSubstr("not valid yet"));
}

TEST_F(TlsTest, CertificateForServersAloneIsNoMasters) {
  EXPECT_THAT(ShakeAs(root_.Issue("purpose", {.purpose = "serverAuth"})).first,
              HasSubstr("clientAuth"));
}

TEST_F(TlsTest, CertificateThatNamesNoPurposeIsForNone) {
  EXPECT_THAT(ShakeAs(root_.Issue("purpose", {.purpose = ""})).first, HasSubstr("clientAuth"));
}

TEST_F(TlsTest, AuthorityInBetweenHasToBeSent) {
  Authority between(directory_.path().string(), "between", &root_);
  const Identity whole = between.Issue("whole", {.upn = "alice@example.com"});
  EXPECT_EQ(ShakeAs(whole), kBothDone);
  std::string chain = directory_.Read("whole.pem");
  chain.resize(chain.find("-----END CERTIFICATE-----") + 26);
  EXPECT_THAT(ShakeAs({directory_.Write("leaf.pem", chain), whole.key}).first,
              HasSubstr("lacks the certificate of an authority in between"));
}

TEST_F(TlsTest, SeveralAuthoritiesAreBelieved) {
  Authority other(directory_.path().string(), "other");
  TlsFiles files = Files(server_);
  files.authorities.push_back(other.file());
  Join(TlsContext::Load(files, Role::kServe),
       TlsContext::Load(Files(other.Issue("colleague", {})), Role::kConnect));
  EXPECT_EQ(Shake(), kBothDone);
}

TEST_F(TlsTest, RevokedCertificateIsRefused) {
  lists_ = {root_.List("empty.crl")};
  EXPECT_EQ(ShakeAs(client_), kBothDone);
  root_.Revoke(client_);
  lists_ = {root_.List("revoked.crl")};
  // A gate refuses itself nothing: it looks at its peer.
  const auto [serving, connecting] = ShakeAs(client_);
  EXPECT_EQ(serving, "The certificate has been revoked");
  EXPECT_EQ(connecting, "The other gate says: this certificate was revoked");
}

TEST_F(TlsTest, WholeChainIsLookedUpInTheLists) {
  Authority between(directory_.path().string(), "between", &root_);
  const Identity client = between.Issue("below", {});
  lists_ = {root_.List("root.crl")};
  EXPECT_THAT(ShakeAs(client).first, HasSubstr("each of them needs one"));
  lists_.push_back(between.List("between.crl"));
  EXPECT_EQ(ShakeAs(client), kBothDone);
  root_.Revoke({between.file(), ""});
  lists_[0] = root_.List("root.crl");
  EXPECT_EQ(ShakeAs(client).first, "The certificate has been revoked");
}

TEST_F(TlsTest, OldListRefusesEverybodyAndSaysSo) {
  const Context connect = Connect();
  lists_ = {root_.List("old.crl", -7200, -3600)};
  const Context context = Serve();
  Join(context, connect);
  EXPECT_THAT(Shake().first, HasSubstr("list of revoked certificates is too old"));
  ASSERT_EQ(context->revocations().size(), 1U);
  EXPECT_EQ(context->revocations()[0].file, lists_[0]);
  EXPECT_EQ(context->revocations()[0].issuer, "CN=root");
  EXPECT_NEAR(static_cast<double>(context->revocations()[0].next_update),
              static_cast<double>(std::time(nullptr)) - 3600, 60);
}

TEST_F(TlsTest, ListThatNeverGrowsOldIsNotTaken) {
  lists_ = {root_.List("for_ever.crl", -3600, std::nullopt)};
  EXPECT_EQ(WhyNotLoaded(Files(server_)),
            lists_[0] + ": does not say when the next list of revoked certificates comes");
}

TEST_F(TlsTest, LivingLinkIsJudgedByTheNewContext) {
  Join(Serve(), Connect());
  ASSERT_EQ(Shake(), kBothDone);
  EXPECT_EQ(Serve()->WhyRefused(serving_->certificate(), serving_->chain()), "");
  root_.Revoke(client_);
  lists_ = {root_.List("revoked.crl")};
  EXPECT_EQ(Serve()->WhyRefused(serving_->certificate(), serving_->chain()),
            "The certificate has been revoked");
  lists_.clear();
  Authority other(directory_.path().string(), "other");
  TlsFiles files = Files(server_);
  files.authorities = {other.file()};
  EXPECT_THAT(
      TlsContext::Load(files, Role::kServe)->WhyRefused(serving_->certificate(), serving_->chain()),
      HasSubstr("of an authority that is not believed here"));
}

TEST_F(TlsTest, LivingLinkOutlivesItsCertificate) {
  const Identity brief = root_.Issue("brief", {.from = -3600, .until = 2});
  EXPECT_EQ(ShakeAs(brief), kBothDone);
  const auto context = Serve();
  while (X509_cmp_current_time(X509_get0_notAfter(serving_->certificate())) > 0) {
    timespec pause{0, 100'000'000};
    nanosleep(&pause, nullptr);
  }
  EXPECT_EQ(context->WhyRefused(serving_->certificate(), serving_->chain()), "");
  EXPECT_EQ(ShakeAs(brief).first, "The certificate has expired");
}

TEST_F(TlsTest, OlderTlsIsRefused) {
  const Context connect = Connect();
  SSL_CTX_set_min_proto_version(connect->get(), TLS1_2_VERSION);
  SSL_CTX_set_max_proto_version(connect->get(), TLS1_2_VERSION);
  Join(Serve(), connect);
  const auto [serving, connecting] = Shake();
  EXPECT_EQ(serving, "The peer does not know TLS 1.3");
  EXPECT_EQ(connecting, "The peer does not know TLS 1.3");
}

TEST_F(TlsTest, PeerWithoutACertificateIsRefused) {
  const Context connect = Connect();
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> bare(SSL_CTX_new(TLS_client_method()),
                                                               SSL_CTX_free);
  Join(Serve(), connect);
  connecting_.reset();
  SSL* client = SSL_new(bare.get());
  SSL_set_fd(client, pair_->peer.get());
  SSL_connect(client);
  serving_->Handshake();
  SSL_connect(client);
  EXPECT_EQ(serving_->Handshake(), Result::kBroken);
  EXPECT_EQ(serving_->error(), "The peer has no certificate");
  SSL_free(client);
}

TEST_F(TlsTest, PlainTextIsRefused) {
  for (const std::string& text :
       {Bytes("01 00 00 00 '3'"), std::string("GET / HTTP/1.1\r\n\r\n")}) {
    Join(Serve(), Connect());
    WriteAll(pair_->peer.get(), text + std::string(64, 'x'));
    EXPECT_EQ(serving_->Handshake(), Result::kBroken);
    EXPECT_EQ(serving_->error(), "The peer does not speak TLS");
  }
}

TEST_F(TlsTest, NoSessionCanBeResumed) {
  const Context connect = Connect();
  SSL_CTX_set_session_cache_mode(connect->get(), SSL_SESS_CACHE_CLIENT);
  static int sessions;
  sessions = 0;
  SSL_CTX_sess_set_new_cb(connect->get(), [](SSL*, SSL_SESSION*) { return ++sessions, 0; });
  Join(Serve(), connect);
  ASSERT_EQ(Shake(), kBothDone);
  EXPECT_EQ(sessions, 0);
}

TEST_F(TlsTest, EndOfTheConnectionIsABreak) {
  Join(Serve(), Connect());
  ASSERT_EQ(Shake(), kBothDone);
  std::array<char, 64> buffer{};
  std::size_t count = 0;
  connecting_->SayGoodbye();
  EXPECT_EQ(serving_->Read(buffer, count), Result::kBroken);
  EXPECT_THAT(serving_->error(), StartsWith("The connection has ended"));
  Join(Serve(), Connect());
  ASSERT_EQ(Shake(), kBothDone);
  pair_->peer.Reset();
  EXPECT_EQ(serving_->Read(buffer, count), Result::kBroken);
  EXPECT_THAT(serving_->error(), StartsWith("The connection has ended"));
}

TEST_F(TlsTest, KeysAreRenewedLongBeforeTheirLimit) {
  constexpr std::uint64_t kFew = 10;
  const Context connect = Connect();
  static int updates;
  updates = 0;
  SSL* const& client = InsideOf(connect);
  Join(Serve(), connect, kHost, kFew);
  ASSERT_EQ(Shake(), kBothDone);
  SSL_set_msg_callback(
      client, [](int writes, int, int type, const void* bytes, std::size_t size, SSL*, void*) {
        const bool update = writes == 0 && type == SSL3_RT_HANDSHAKE && size > 0 &&
                            *static_cast<const unsigned char*>(bytes) == SSL3_MT_KEY_UPDATE;
        updates += update ? 1 : 0;
      });
  std::array<char, 64> buffer{};
  std::size_t count = 0;
  for (int i = 0; i < 35; ++i) {
    ASSERT_EQ(serving_->Write("x", count), Result::kDone);
    ASSERT_EQ(connecting_->Read(buffer, count), Result::kDone);
  }
  EXPECT_EQ(updates, 3);
  EXPECT_LT(TlsSocket::kRecordsPerKey, 24'000'000U / 2);
}

TEST_F(TlsTest, PeerThatDoesNothingButTakeNewKeysIsLeft) {
  for (const bool serving : {false, true}) {
    for (const int kind : {SSL_KEY_UPDATE_NOT_REQUESTED, SSL_KEY_UPDATE_REQUESTED}) {
      const Context serve = Serve();
      const Context connect = Connect();
      SSL* const& hostile = InsideOf(serving ? serve : connect);
      Join(serve, connect);
      ASSERT_EQ(Shake(), kBothDone);
      TlsSocket& from = serving ? *serving_ : *connecting_;
      TlsSocket& to = serving ? *connecting_ : *serving_;
      const auto update = [&](int times) {
        for (int i = 0; i < times; ++i) {
          ASSERT_EQ(SSL_key_update(hostile, kind), 1);
          ASSERT_EQ(SSL_do_handshake(hostile), 1);
        }
      };
      std::array<char, 64> buffer{};
      std::size_t count = 0;
      update(TlsSocket::kKeyUpdatesInARow);
      ASSERT_EQ(from.Write("x", count), Result::kDone);
      EXPECT_EQ(to.Read(buffer, count), Result::kDone);
      update(TlsSocket::kKeyUpdatesInARow + 1);
      ASSERT_EQ(from.Write("x", count), Result::kDone);
      EXPECT_EQ(to.Read(buffer, count), Result::kBroken) << serving << kind;
    }
  }
}

TEST_F(TlsTest, FileThatCannotBeUsedIsNamed) {
  TlsFiles files = Files(server_);
  files.certificate = directory_.File("none.pem");
  EXPECT_THAT(WhyNotLoaded(files), StartsWith(files.certificate + ": is no certificate"));
  files = Files(server_);
  files.key = client_.key;
  EXPECT_THAT(WhyNotLoaded(files), StartsWith(client_.key + ": is no key of the certificate"));
  files.key = directory_.File("none.key");
  EXPECT_THAT(WhyNotLoaded(files), StartsWith(files.key + ": is no key of the certificate"));
  for (const char* cipher : {"", "aes-256-cbc"}) {
    files.key = OtherKey(cipher);
    EXPECT_THAT(WhyNotLoaded(files), StartsWith(files.key + ": is no key of the certificate"));
  }
  files = Files(server_);
  files.authorities = {directory_.Write("text.pem", "no certificate")};
  EXPECT_THAT(WhyNotLoaded(files), HasSubstr("text.pem: holds no certificate"));
  files.authorities = {};
  EXPECT_THAT(WhyNotLoaded(files), StartsWith("No authority is given"));
  files = Files(server_);
  files.revocations = {directory_.Write("text.crl", "no list")};
  EXPECT_THAT(WhyNotLoaded(files), HasSubstr("text.crl: holds no list of revoked certificates"));
  files.revocations = {directory_.File("none.crl")};
  EXPECT_THAT(WhyNotLoaded(files), HasSubstr("none.crl: cannot be read"));
}

TEST(CertificateSentenceTest, RareErrorIsToldInTheLibrarysWords) {
  EXPECT_EQ(CertificateSentence(X509_V_ERR_PERMITTED_VIOLATION),
            "The certificate is refused: permitted subtree violation");
}

TEST_F(TlsTest, BrokenAuthorityAfterAGoodOneIsAnError) {
  TlsFiles files = Files(server_);
  files.authorities = {directory_.Write(
      "half.pem", directory_.Read("root.pem") +
                      "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n")};
  EXPECT_THAT(WhyNotLoaded(files), HasSubstr("half.pem: is broken"));
}

TEST_F(TlsTest, KeyThatEverybodyMayReadIsRefused) {
  using std::filesystem::perms;
  for (const perms open : {perms::others_read, perms::group_write, perms::others_write}) {
    std::filesystem::permissions(server_.key, perms::owner_read | open);
    EXPECT_THAT(WhyNotLoaded(Files(server_)), HasSubstr("others may read or write the key"));
  }
  std::filesystem::permissions(server_.key, perms::owner_read | perms::group_read);
  EXPECT_EQ(WhyNotLoaded(Files(server_)), "loaded");
}

}  // namespace
}  // namespace gate
