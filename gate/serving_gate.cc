#include "gate/serving_gate.h"

#include <openssl/rand.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "gate/clock.h"

namespace gate {
namespace {

using boost::system::error_code;
using Result = TlsSocket::Result;

constexpr std::chrono::seconds kTick{1};
constexpr Time kStatusAge = std::chrono::seconds(2);
constexpr Time kLastWords = std::chrono::seconds(10);
constexpr const char* kTooSlow = "The request has taken too long";
constexpr int kRefusalsASecond = 20;
constexpr std::int64_t kListIsOldSoon = 259200;  // three days

LinkId RandomId() {
  LinkId id;
  if (RAND_bytes(id.bytes.data(), static_cast<int>(id.bytes.size())) != 1) {
    throw std::runtime_error("The system gives no random numbers");
  }
  return id;
}

Identity IdentityOf(const TlsSocket& tls, const CertificateNames& names) {
  Identity identity{tls.authority(), {}};
  for (const CertificateName& name : names.names) identity.names.push_back(Folded(Text(name)));
  std::sort(identity.names.begin(), identity.names.end());
  // Without a name nobody can be told from another but by the certificate itself.
  if (identity.names.empty()) identity.names.push_back(FingerprintOf(*tls.certificate()));
  return identity;
}

Json TextsOf(const CertificateNames& names) {
  Json texts = Json::array();
  for (const CertificateName& name : names.names) texts.push_back(Text(name));
  return texts;
}

}  // namespace

// A connection that has not proven anything yet, or of which it is not yet decided what becomes of
// it.
struct ServingGate::Arrival {
  std::unique_ptr<Wire> wire;
  std::shared_ptr<const TlsContext> tls;  // by which its certificate is judged in the handshake
  Tcp::endpoint peer;
  Time since{};
  std::string opening;
  CertificateNames names;
  Identity identity;
  std::string fingerprint;
  std::optional<Tcp::socket> daemon;  // of a link that begins, while the daemon is waited for
  Arrivals::iterator place;
  bool gone = false;
};

struct ServingGate::Link {
  LinkId id;
  std::uint64_t number = 0;  // for people
  std::shared_ptr<LinkEnd> end;
  CertificateNames names;
  std::string fingerprint;
  std::shared_ptr<X509> certificate;
  std::shared_ptr<STACK_OF(X509)> chain;
  Tcp::endpoint peer;
  std::uint16_t daemon_port = 0;
  std::optional<std::string> claimed;
  std::optional<CertificateName> proof;
  bool denied = false;  // the master gets a text, and nothing of his reaches the daemon
  Time since{};
  Time since_wall{};

  // Keeps what a reload judges again: the link may have lost the connection that proved it.
  void Keep(const Arrival& arrival) {
    const TlsSocket& tls = *arrival.wire->tls;
    X509_up_ref(tls.certificate());
    certificate = std::shared_ptr<X509>(tls.certificate(), X509_free);
    chain = std::shared_ptr<STACK_OF(X509)>(
        X509_chain_up_ref(tls.chain()),
        [](STACK_OF(X509) * all) { sk_X509_pop_free(all, X509_free); });
    names = arrival.names;
    fingerprint = arrival.fingerprint;
    peer = arrival.peer;
  }
};

ServingGate::ServingGate(boost::asio::io_context& context, Options options, Journal& journal)
    : context_(context),
      options_(std::move(options)),
      journal_(journal),
      listener_(context),
      daemon_(Resolve(context, options_.daemon)),
      ticker_(context),
      table_(options_.table, RandomId),
      closings_(options_.most_arriving),
      started_(WallTime()) {
  Load();
  listener_.Listen(
      Resolve(context, options_.listen), [this](Tcp::socket socket) { Arrive(std::move(socket)); },
      [this] { Count("accepts_failed"); });
  Tick();
}

ServingGate::~ServingGate() = default;

std::uint16_t ServingGate::port() const {
  return listener_.port();
}

void ServingGate::Load() {
  auto tls = TlsContext::Load(options_.tls, TlsContext::Role::kServe);
  UserMap users = options_.users.empty() ? UserMap() : UserMap::Load(options_.users);
  tls_ = std::move(tls);
  users_ = std::move(users);
  WarnOfLists();
}

void ServingGate::WarnOfLists() const {
  for (const RevocationList& list : tls_->revocations()) {
    const std::int64_t left = list.next_update - WallTime().count() / 1000;
    if (left > kListIsOldSoon) continue;
    journal_.Write("revocation list",
                   {{"file", list.file},
                    {"issuer", list.issuer},
                    {"next_update", TimeText(list.next_update * 1000)},
                    {"why", left < 0 ? "it is too old: nobody of this authority is let in"
                                     : "it will be too old soon"}});
  }
}

void ServingGate::Reload() {
  try {
    Load();
  } catch (const std::exception& error) {
    journal_.Write("reload failed", {{"why", error.what()}});
    Count("reloads_failed");
    return;
  }
  journal_.Write("reloaded", Json::object());
  Count("reloads");
  std::vector<std::shared_ptr<LinkEnd>> bad;
  for (const auto& [id, link] : links_) {
    const std::string why = WhyNotGood(*link);
    if (why.empty()) continue;
    Json fields = FieldsOf(*link);
    fields["why"] = why;
    journal_.Write("no longer good", fields);
    bad.push_back(link->end);
  }
  for (const auto& end : bad) end->End(Reason::kNotValid);
}

// A reload since the handshake may have brought the list that revokes the certificate.
bool ServingGate::IsGood(const Arrival& arrival) const {
  const TlsSocket& tls = *arrival.wire->tls;
  return arrival.tls == tls_ || tls_->WhyRefused(tls.certificate(), tls.chain()).empty();
}

// Judges the certificate by which the link was last proven, and its claim, by what is loaded now.
std::string ServingGate::WhyNotGood(const Link& link) const {
  std::string why = tls_->WhyRefused(link.certificate.get(), link.chain.get());
  if (!why.empty() || !link.claimed) return why;
  return ProofOf(*link.claimed, link.names.names, users_)
             ? ""
             : NotProvenText(*link.claimed, link.names);
}

void ServingGate::Stop() {
  stopping_ = true;
  listener_.Close();
  error_code ignored;
  ticker_.cancel(ignored);
  while (!arrivals_.empty()) Drop(arrivals_.front(), "The gate ends");
  std::vector<std::shared_ptr<LinkEnd>> ends;
  for (const auto& [id, link] : links_) ends.push_back(link->end);
  for (const auto& end : ends) end->End(Reason::kEnded);
  if (!options_.status.empty()) WriteStatus();
}

void ServingGate::Count(const char* what) {
  ++counts_[what];
}

void ServingGate::Arrive(Tcp::socket socket) {
  Prepare(socket);
  Count("connections");
  auto arrival = std::make_shared<Arrival>();
  arrival->peer = PeerOf(socket);
  arrival->since = Now();
  arrival->wire = std::make_unique<Wire>(std::move(socket));
  arrival->place = arrivals_.insert(arrivals_.end(), arrival);
  const auto same = std::count_if(arrivals_.begin(), arrivals_.end(), [&](const auto& other) {
    return other->peer.address() == arrival->peer.address();
  });
  if (same > static_cast<std::ptrdiff_t>(options_.most_arriving_of_one)) {
    return Drop(arrival,
                "There are too many connections from this address that have proven nothing");
  }
  // Whoever means well has proven himself in a moment: the oldest arrival makes room.
  if (arrivals_.size() > options_.most_arriving) {
    Drop(arrivals_.front(), "There are too many connections that have proven nothing");
  }
  try {
    arrival->tls = tls_;
    arrival->wire->tls = std::make_unique<TlsSocket>(
        static_cast<std::uintptr_t>(arrival->wire->socket.native_handle()), tls_, "");
  } catch (const std::exception& error) {
    return Drop(arrival, error.what());
  }
  Shake(arrival);
}

void ServingGate::AwaitArrival(const std::shared_ptr<Arrival>& arrival, Result wanted,
                               void (ServingGate::*next)(const std::shared_ptr<Arrival>&)) {
  const auto what = wanted == Result::kWantWrite ? Tcp::socket::wait_write : Tcp::socket::wait_read;
  arrival->wire->socket.async_wait(what, [this, arrival, next](error_code error) {
    if (arrival->gone) return;
    if (error) return Drop(arrival, error.message());
    (this->*next)(arrival);
  });
}

void ServingGate::Shake(const std::shared_ptr<Arrival>& arrival) {
  const Result result = arrival->wire->tls->Handshake();
  if (result == Result::kBroken) return Drop(arrival, arrival->wire->tls->error());
  if (result != Result::kDone) return AwaitArrival(arrival, result, &ServingGate::Shake);
  const TlsSocket& tls = *arrival->wire->tls;
  arrival->names = NamesOf(*tls.certificate(), options_.common_name);
  arrival->identity = IdentityOf(tls, arrival->names);
  arrival->fingerprint = FingerprintOf(*tls.certificate());
  ReadOpening(arrival);
}

void ServingGate::ReadOpening(const std::shared_ptr<Arrival>& arrival) {
  // No more than the opening is read: what follows is the stream's.
  std::array<char, Opening::kSize> bytes{};
  std::size_t got = 0;
  const Result result = arrival->wire->tls->Read(
      std::span(bytes).first(Opening::kSize - arrival->opening.size()), got);
  if (result == Result::kBroken) return Drop(arrival, arrival->wire->tls->error());
  if (result != Result::kDone) return AwaitArrival(arrival, result, &ServingGate::ReadOpening);
  arrival->opening.append(bytes.data(), got);
  if (arrival->opening.size() < Opening::kSize) return ReadOpening(arrival);
  const auto read = gate::ReadOpening(arrival->opening);
  if (const auto* reason = std::get_if<Reason>(&read)) {
    if (*reason == Reason::kBrokenRules) return Drop(arrival, "The peer is no gate");
    return Refuse(arrival, *reason);
  }
  Decide(arrival, std::get<Opening>(read));
}

void ServingGate::Decide(const std::shared_ptr<Arrival>& arrival, const Opening& opening) {
  if (opening.IsNew()) {
    Begin(arrival, opening);
  } else {
    Resume(arrival, opening);
  }
}

void ServingGate::Begin(const std::shared_ptr<Arrival>& arrival, const Opening& opening) {
  const auto added = table_.Add(arrival->identity);
  if (const auto* reason = std::get_if<Reason>(&added)) return Refuse(arrival, *reason);
  const LinkId id = std::get<LinkId>(added);
  // The daemon is beside this gate: it answers at once or not at all, and Tick() gives it up.
  arrival->daemon.emplace(context_);
  arrival->daemon->async_connect(daemon_, [this, arrival, opening, id](error_code error) {
    if (!error && !arrival->gone) return Join(arrival, opening, id, std::move(*arrival->daemon));
    table_.Ended(id, Reason::kNoService);
    if (!arrival->gone) Refuse(arrival, Reason::kNoService);
  });
}

void ServingGate::Join(const std::shared_ptr<Arrival>& arrival, const Opening& opening,
                       const LinkId& id, Tcp::socket daemon) {
  if (!IsGood(*arrival)) {
    table_.Ended(id, Reason::kNotValid);
    return Refuse(arrival, Reason::kNotValid);
  }
  auto link = std::make_unique<Link>();
  Link* const raw = link.get();
  link->id = id;
  link->number = ++last_number_;
  link->since = Now();
  link->since_wall = WallTime();
  link->Keep(*arrival);
  auto stream = std::make_unique<Stream>(id, options_.stream);
  if (!stream->Accept(opening, Now())) {
    table_.Ended(id, Reason::kBrokenRules);
    return Refuse(arrival, Reason::kBrokenRules);
  }
  LinkEnd::Events events;
  events.broken = [this, raw](const std::string& why) {
    table_.Broken(raw->id, Now());
    Count("broken");
    Json fields = FieldsOf(*raw);
    fields["why"] = why;
    journal_.Write("broken", fields);
    if (options_.table.hold == Time::zero()) raw->end->End(Reason::kHeldTooLong);
  };
  events.ended = [this, id] { Ended(id); };
  events.judge = [this, raw](const Claim& claim) { return Judge(*raw, claim); };
  link->end = std::make_shared<LinkEnd>(std::move(daemon), std::move(stream), std::move(events));
  link->daemon_port = link->end->local_endpoint().port();
  link->end->GuardLocal(options_.claim_bytes);
  Count("links");
  journal_.Write("begun", FieldsOf(*raw));
  const auto end = link->end;
  links_[id] = std::move(link);
  auto wire = std::move(arrival->wire);
  Forget(arrival);
  end->Take(std::move(wire));
}

// The connection proves anew what the link was begun with, by the same look at the certificate and
// the same look at the claim.
void ServingGate::Resume(const std::shared_ptr<Arrival>& arrival, const Opening& opening) {
  if (const auto reason = table_.Refuses(opening.id, arrival->identity, opening.epoch)) {
    return Refuse(arrival, *reason);
  }
  const auto found = links_.find(opening.id);
  if (found == links_.end()) return Refuse(arrival, Reason::kBusy);  // it has only just begun
  Link& link = *found->second;
  if (!IsGood(*arrival) ||
      (link.claimed && !ProofOf(*link.claimed, arrival->names.names, users_))) {
    return Refuse(arrival, Reason::kNotValid);
  }
  if (!link.end->stream().Accept(opening, Now())) return Refuse(arrival, Reason::kBrokenRules);
  table_.Resumed(opening.id, opening.epoch);
  link.Keep(*arrival);
  Count("resumed");
  journal_.Write("resumed", FieldsOf(link));
  const auto end = link.end;
  auto wire = std::move(arrival->wire);
  Forget(arrival);
  end->Take(std::move(wire));
}

void ServingGate::Refuse(const std::shared_ptr<Arrival>& arrival, Reason reason) {
  std::size_t put = 0;
  // There is room for some bytes in a connection on which nothing was sent yet.
  arrival->wire->tls->Write(Refusal(reason), put);
  Drop(arrival, TextOf(reason));
}

void ServingGate::Drop(const std::shared_ptr<Arrival>& arrival, const std::string& why) {
  Count("refused");
  TellOfRefusal(*arrival, why);
  auto wire = std::move(arrival->wire);
  Forget(arrival);
  closings_.CloseGently(std::move(wire));
}

// A stranger may be refused as often as he likes, and every line costs disk. So only some refusals
// a second are logged: so many for each certificate, so that its owner hides nobody else, and as
// many for all connections without an accepted one.
void ServingGate::TellOfRefusal(const Arrival& arrival, const std::string& why) {
  if (++refusals_[arrival.fingerprint] > kRefusalsASecond) {
    ++refusals_untold_;
    return;
  }
  Json fields = FieldsOf(arrival);
  fields["why"] = why;
  if (refusals_untold_ > 0) fields["refused_untold"] = std::exchange(refusals_untold_, 0);
  journal_.Write("refused", fields);
}

void ServingGate::Forget(const std::shared_ptr<Arrival>& arrival) {
  if (std::exchange(arrival->gone, true)) return;
  error_code ignored;
  if (arrival->daemon) arrival->daemon->close(ignored);
  arrivals_.erase(arrival->place);  // last: `arrival` may refer to what this removes
}

std::string ServingGate::Judge(Link& link, const Claim& claim) {
  std::string refusal;
  if (claim.state() == Claim::State::kTooLong) {
    refusal = "The request is longer than the gate takes";
  } else {
    link.claimed = claim.user();
    link.proof = ProofOf(claim.user(), link.names.names, users_);
    if (!link.proof) refusal = NotProvenText(claim.user(), link.names);
  }
  if (refusal.empty()) {
    Count("admitted");
    journal_.Write("admitted", FieldsOf(link));
  } else {
    Deny(link, refusal);
  }
  return refusal;
}

void ServingGate::Deny(Link& link, const std::string& why) {
  link.denied = true;
  Json fields = FieldsOf(link);
  fields["why"] = why;
  Count("denied");
  journal_.Write("denied", fields);
}

void ServingGate::Ended(const LinkId& id) {
  const auto found = links_.find(id);
  if (found == links_.end()) return;
  const auto link = std::move(found->second);
  links_.erase(found);
  const Stream& stream = link->end->stream();
  table_.Ended(id, stream.reason());
  Json fields = FieldsOf(*link);
  fields["verdict"] = link->proof ? "admitted" : link->denied ? "denied" : "no claim";
  fields["bytes_to_daemon"] = stream.taken();
  fields["bytes_to_master"] = stream.given();
  fields["seconds"] = static_cast<double>((Now() - link->since).count()) / 1000;
  fields["how"] = TextOf(stream.reason());
  journal_.Write("ended", fields);
  Count("ended");
}

Json ServingGate::FieldsOf(const Arrival& arrival) const {
  Json fields{{"peer", Text(arrival.peer)}};
  if (!arrival.fingerprint.empty()) {
    fields["names"] = TextsOf(arrival.names);
    fields["certificate"] = arrival.fingerprint;
  }
  return fields;
}

Json ServingGate::FieldsOf(const Link& link) const {
  Json fields{{"link", link.number},
              {"peer", Text(link.peer)},
              {"names", TextsOf(link.names)},
              {"certificate", link.fingerprint},
              {"daemon_port", link.daemon_port}};
  if (link.claimed) fields["claimed"] = *link.claimed;
  if (link.proof) fields["proof"] = Text(*link.proof);
  return fields;
}

void ServingGate::Tick() {
  const Time now = Now();
  refusals_.clear();
  while (!arrivals_.empty() && now - arrivals_.front()->since > options_.arrival) {
    const auto arrival = arrivals_.front();
    if (arrival->daemon) {
      Refuse(arrival, Reason::kNoService);
    } else {
      Drop(arrival, "It has taken too long to prove anything");
    }
  }
  LookAfterLinks(now);
  if (!options_.status.empty() && now - status_written_ >= kStatusAge) {
    status_written_ = now;
    WriteStatus();
  }
  ticker_.expires_after(kTick);
  ticker_.async_wait([this](error_code error) {
    if (!error && !stopping_) Tick();
  });
}

void ServingGate::LookAfterLinks(Time now) {
  std::vector<std::shared_ptr<LinkEnd>> silent;
  std::vector<std::shared_ptr<LinkEnd>> useless;
  for (const auto& [id, link] : links_) {
    const Time late = now - link->since - options_.claim;
    if (link->proof || late <= Time::zero()) continue;
    // A refused master that does not go, or a link that broke before its claim was judged: the
    // other gate may never have heard of it.
    if (late > kLastWords || link->end->wire() == nullptr) {
      useless.push_back(link->end);
    } else if (link->end->claim_is_open()) {
      Deny(*link, kTooSlow);
      silent.push_back(link->end);
    }
  }
  for (const auto& end : silent) end->RefuseMaster(kTooSlow);
  for (const auto& end : useless) end->End(Reason::kNoProof);
  for (const LinkId& id : table_.Overdue(now)) {
    const auto found = links_.find(id);
    if (found != links_.end()) std::shared_ptr(found->second->end)->End(Reason::kHeldTooLong);
  }
}

Json ServingGate::StatusOf(const Link& link, Time now) const {
  const Stream& stream = link.end->stream();
  const auto known = table_.links().find(link.id);
  Json status = FieldsOf(link);
  status["since"] = static_cast<double>(link.since_wall.count()) / 1000;
  status["bytes_to_daemon"] = stream.taken();
  status["bytes_to_master"] = stream.given();
  status["kept_bytes"] = stream.kept();
  status["broken_seconds"] = nullptr;
  if (known != table_.links().end()) {
    status["resumptions"] = known->second.resumptions;
    if (known->second.broken_since) {
      status["broken_seconds"] =
          static_cast<double>((now - *known->second.broken_since).count()) / 1000;
    }
  }
  return status;
}

void ServingGate::WriteStatus() {
  const Time now = Now();
  Json document{{"schema", 1},
                {"version", options_.version},
                {"time", static_cast<double>(WallTime().count()) / 1000},
                {"started", static_cast<double>(started_.count()) / 1000},
                {"running", !stopping_},
                {"listen", Text(options_.listen)},
                {"daemon", Text(daemon_)},
                {"most_links", options_.table.most},
                {"arriving", arrivals_.size()},
                {"counts", Json::object()},
                {"revocation_lists", Json::array()},
                {"links", Json::array()}};
  for (const auto& [what, count] : counts_) document["counts"][what] = count;
  for (const RevocationList& list : tls_->revocations()) {
    document["revocation_lists"].push_back(
        {{"file", list.file}, {"issuer", list.issuer}, {"next_update", list.next_update}});
  }
  for (const auto& [id, link] : links_) document["links"].push_back(StatusOf(*link, now));
  if (!ReplaceWhole(options_.status, TextOf(document) + "\n")) Count("status_not_written");
}

}  // namespace gate
