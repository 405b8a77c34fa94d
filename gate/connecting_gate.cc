#include "gate/connecting_gate.h"

#include <random>
#include <stdexcept>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <nlohmann/json.hpp>

#include "gate/clock.h"

namespace gate {
namespace {

using boost::system::error_code;
using Result = TlsSocket::Result;

double Random() {
  static std::mt19937_64 engine{std::random_device{}()};
  return std::uniform_real_distribution<double>(0, 1)(engine);
}

// Tells a master that is not served why, and closes its connection.
void TellMaster(Tcp::socket master, const std::string& text, FewClosings& closings) {
  Prepare(master);
  error_code gone;
  master.write_some(boost::asio::buffer(RefusalFrames(text)), gone);
  closings.CloseGently(std::move(master));
}

}  // namespace

struct ConnectingGate::Session {
  Session(boost::asio::io_context& context, const Backoff::Options& backoff_options)
      : resolver(context), timer(context), backoff(backoff_options) {}

  std::uint64_t number = 0;
  std::shared_ptr<LinkEnd> end;
  Sessions::iterator place;
  Tcp::resolver resolver;
  boost::asio::steady_timer timer;  // bounds an attempt, and is the pause before the next
  Backoff backoff;
  // What an attempt has: a socket while it connects, kept alive by that operation, then a wire.
  std::weak_ptr<Tcp::socket> connecting;
  std::unique_ptr<Wire> wire;
  std::uint64_t attempt = 0;  // callbacks of an older one do nothing
  bool attached_once = false;
  std::string why;  // the last failure
  Time since{};
  std::uint64_t resumptions = 0;
};

ConnectingGate::ConnectingGate(boost::asio::io_context& context, Options options, Journal& journal)
    : context_(context),
      options_(std::move(options)),
      journal_(journal),
      tls_(TlsContext::Load(options_.tls, TlsContext::Role::kConnect)),
      loaded_(TimesOfFiles()),
      listener_(context) {
  const Tcp::endpoint place = Resolve(context, options_.listen);
  if (!place.address().is_loopback()) {
    throw std::runtime_error(options_.listen.host +
                             ": masters are taken on a loopback address alone");
  }
  listener_.Listen(
      place, [this](Tcp::socket master) { Begin(std::move(master)); }, [] {});
}

ConnectingGate::~ConnectingGate() = default;

std::uint16_t ConnectingGate::port() const {
  return listener_.port();
}

std::vector<std::filesystem::file_time_type> ConnectingGate::TimesOfFiles() const {
  std::vector<std::string> files = {options_.tls.certificate, options_.tls.key};
  files.insert(files.end(), options_.tls.authorities.begin(), options_.tls.authorities.end());
  files.insert(files.end(), options_.tls.revocations.begin(), options_.tls.revocations.end());
  std::vector<std::filesystem::file_time_type> times;
  for (const std::string& file : files) {
    std::error_code error;
    times.push_back(std::filesystem::last_write_time(file, error));
  }
  return times;
}

void ConnectingGate::Reload() {
  auto times = TimesOfFiles();
  try {
    tls_ = TlsContext::Load(options_.tls, TlsContext::Role::kConnect);
    journal_.Write("reloaded", Json::object());
  } catch (const std::exception& error) {
    journal_.Write("reload failed", {{"why", error.what()}});
  }
  loaded_ = std::move(times);
}

// Nobody sends a signal on an engineer's machine when a certificate has been renewed.
void ConnectingGate::LookForNewFiles() {
  if (TimesOfFiles() != loaded_) Reload();
}

void ConnectingGate::ListenNoMore() {
  listener_.Close();
}

void ConnectingGate::Stop() {
  stopping_ = true;
  ListenNoMore();
  const Sessions all = sessions_;
  for (const auto& session : all) {
    session->why = "The gate has been ended";
    session->end->End(Reason::kEnded);
  }
}

std::string ConnectingGate::WhyNotTaken(const Tcp::socket& master) const {
  error_code gone;
  const Tcp::endpoint local = master.local_endpoint(gone);
  const Tcp::endpoint remote = PeerOf(master);
  const LoopbackConnection connection{local.address().is_v6(), local.address().to_string(),
                                      local.port(), remote.address().to_string(), remote.port()};
  const std::string why = options_.why_not_own(connection);
  if (!why.empty()) return "This gate serves its own user's masters alone: " + why;
  if (sessions_.size() >= options_.most) return "There are too many masters at this gate";
  return "";
}

void ConnectingGate::Begin(Tcp::socket master) {
  const std::string why = WhyNotTaken(master);
  if (!why.empty()) {
    journal_.Write("refused", {{"peer", Text(PeerOf(master))}, {"why", why}});
    return TellMaster(std::move(master), why, closings_);
  }
  auto session = std::make_shared<Session>(context_, options_.backoff);
  session->number = ++last_number_;
  session->since = Now();
  session->place = sessions_.insert(sessions_.end(), session);
  const std::weak_ptr<Session> weak = session;
  LinkEnd::Events events;
  events.broken = [this, weak](const std::string& reason) {
    if (const auto living = weak.lock()) Broken(living, reason);
  };
  events.attached = [this, weak] {
    const auto living = weak.lock();
    if (!living) return;
    living->backoff.Attached(Now());
    living->why.clear();
    if (living->attached_once) ++living->resumptions;
    journal_.Write(std::exchange(living->attached_once, true) ? "resumed" : "begun",
                   FieldsOf(*living));
  };
  events.farewell = [weak]() -> std::string {
    const auto living = weak.lock();
    if (!living || living->attached_once) return "";
    const Reason reason = living->end->stream().reason();
    return "vkgate: " + (living->why.empty() ? std::string(TextOf(reason)) : living->why);
  };
  events.ended = [this, weak] {
    if (const auto living = weak.lock()) Ended(living);
  };
  session->end = std::make_shared<LinkEnd>(
      std::move(master), std::make_unique<Stream>(options_.stream), std::move(events));
  session->end->Start();
  Connect(session);
}

void ConnectingGate::Connect(const std::shared_ptr<Session>& session) {
  LookForNewFiles();
  const std::uint64_t attempt = ++session->attempt;
  session->timer.expires_after(options_.connect);
  session->timer.async_wait([this, session, attempt](error_code error) {
    if (!error && attempt == session->attempt) {
      Failed(session, "The gate at " + options_.to.host + " does not answer");
    }
  });
  // The name is looked up for each attempt: the address may have changed meanwhile.
  session->resolver.async_resolve(
      options_.to.host, options_.to.port,
      [this, session, attempt](error_code error, const Tcp::resolver::results_type& found) {
        if (attempt != session->attempt) return;
        if (error) return Failed(session, options_.to.host + ": " + error.message());
        const auto socket = std::make_shared<Tcp::socket>(context_);
        session->connecting = socket;
        boost::asio::async_connect(
            *socket, found,
            [this, session, attempt, socket](error_code refused, const Tcp::endpoint&) {
              if (attempt != session->attempt) return;
              if (refused) {
                return Failed(session, "The gate at " + Text(options_.to) +
                                           " cannot be reached: " + refused.message());
              }
              session->wire = std::make_unique<Wire>(std::move(*socket));
              Prepare(session->wire->socket);
              try {
                session->wire->tls = std::make_unique<TlsSocket>(
                    static_cast<std::uintptr_t>(session->wire->socket.native_handle()), tls_,
                    options_.server.empty() ? options_.to.host : options_.server);
              } catch (const std::exception& wrong) {
                return Failed(session, wrong.what());
              }
              Shake(session);
            });
      });
}

void ConnectingGate::Shake(const std::shared_ptr<Session>& session) {
  const Result result = session->wire->tls->Handshake();
  if (result == Result::kBroken) return Failed(session, session->wire->tls->error());
  if (result != Result::kDone) {
    const auto what =
        result == Result::kWantWrite ? Tcp::socket::wait_write : Tcp::socket::wait_read;
    session->wire->socket.async_wait(what,
                                     [this, session, attempt = session->attempt](error_code error) {
                                       if (attempt != session->attempt) return;
                                       if (error) return Failed(session, error.message());
                                       Shake(session);
                                     });
    return;
  }
  error_code ignored;
  session->timer.cancel(ignored);
  ++session->attempt;
  session->end->stream().Connect(Now());
  session->end->Take(std::move(session->wire));
}

// Gives up the attempt, if one is going on.
void ConnectingGate::Abandon(Session& session) {
  ++session.attempt;
  error_code ignored;
  session.timer.cancel(ignored);
  session.resolver.cancel();
  if (const auto socket = session.connecting.lock()) socket->close(ignored);
  CloseGently(std::move(session.wire));
}

// An attempt has come to nothing.
void ConnectingGate::Failed(const std::shared_ptr<Session>& session, const std::string& why) {
  Abandon(*session);
  Broken(session, why);
}

void ConnectingGate::Broken(const std::shared_ptr<Session>& session, const std::string& why) {
  if (stopping_ || session->end->stream().state() == Stream::State::kEnded) return;
  if (why != session->why) {
    session->why = why;
    Json fields = FieldsOf(*session);
    fields["why"] = why;
    journal_.Write("broken", fields);
  }
  // A master that has got nothing yet can be told, and may try again itself.
  if (!session->attached_once) return session->end->End(Reason::kNoService);
  if (why == kRevokedHere) return session->end->End(Reason::kNotValid);
  const auto pause = session->backoff.Pause(Now(), Random());
  if (!pause) return session->end->End(Reason::kHeldTooLong);
  const std::uint64_t attempt = ++session->attempt;
  session->timer.expires_after(*pause);
  session->timer.async_wait([this, session, attempt](error_code error) {
    if (!error && attempt == session->attempt) Connect(session);
  });
}

void ConnectingGate::Ended(const std::shared_ptr<Session>& session) {
  Abandon(*session);
  sessions_.erase(session->place);
  const Stream& stream = session->end->stream();
  Json fields = FieldsOf(*session);
  fields["bytes_to_daemon"] = stream.given();
  fields["bytes_to_master"] = stream.taken();
  fields["seconds"] = static_cast<double>((Now() - session->since).count()) / 1000;
  fields["resumptions"] = session->resumptions;
  fields["how"] = TextOf(stream.reason());
  if (!session->attached_once) fields["why"] = session->why;
  journal_.Write("ended", fields);
}

Json ConnectingGate::FieldsOf(const Session& session) const {
  return {{"link", session.number}};
}

}  // namespace gate
