#include "tools/vkgate/program.h"

#include <signal.h>

#include <stdexcept>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#ifdef _WIN32
#include <windows.h>
#else
#include <sys/resource.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <nlohmann/json.hpp>

#include "gate/connecting_gate.h"
#include "gate/journal.h"
#include "gate/serving_gate.h"
#include "tools/completion/completion.h"

namespace vkgate {
namespace {

// So long both sides can still be told of the end.
constexpr std::chrono::seconds kLastWords{3};

struct Common {
  std::string listen;
  std::string to;
  gate::TlsFiles tls;
  std::string log;
  long silence = 60;
  double hold_hours = 12;
  bool no_ahead = false;
};

struct ServeOptions {
  Common common;
  gate::ServingGate::Options gate;
  long arrival = 10;
  long claim = 30;
};

struct ConnectOptions {
  Common common;
  gate::ConnectingGate::Options gate;
  long attempt = 10;
  double longest_pause = 30;
};

void DeclareCommon(CLI::App& app, Common& common) {
  app.add_option("--certificate", common.tls.certificate,
                 "This gate's certificate, and those between it and its authority (PEM)")
      ->required()
      ->type_name("FILE");
  app.add_option("--key", common.tls.key, "The certificate's key (PEM)")
      ->required()
      ->type_name("FILE");
  app.add_option("--authority", common.tls.authorities,
                 "An authority whose certificates are believed (PEM); may be given several times")
      ->required()
      ->type_name("FILE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option(
         "--revoked", common.tls.revocations,
         "A list of revoked certificates (PEM); when one is given, each authority needs one")
      ->type_name("FILE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--hold", common.hold_hours,
                 "How many hours a broken link may be resumed; 0: never")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 10000.0))
      ->type_name("HOURS");
  app.add_option(
         "--silence", common.silence,
         "After how many seconds without a word from the other gate a link counts as broken")
      ->capture_default_str()
      ->check(CLI::Range(1, 86400))
      ->type_name("SECONDS");
  app.add_flag("--no-ahead", common.no_ahead,
               "Do not ask for the records of wells before the master does");
  app.add_option("--log", common.log, "Write the log there instead of to standard output")
      ->type_name("FILE");
}

gate::Time HoldOf(const Common& common) {
  return std::chrono::duration_cast<gate::Time>(
      std::chrono::duration<double, std::ratio<3600>>(common.hold_hours));
}

gate::Stream::Options StreamOf(const Common& common) {
  gate::Stream::Options stream;
  stream.silence = std::chrono::seconds(common.silence);
  stream.ahead = !common.no_ahead;
  return stream;
}

// A link takes two descriptors. The soft limit is there for programs with select(), which this one
// does not use.
void LiftDescriptorLimit() {
#ifndef _WIN32
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
#endif
}

// Bytes that pass through are kept for a moment and let go. By default the C library gives memory
// back to the system each time, and is given it anew: that took a third of the system's time of a
// large answer. A few megabytes for the whole process stay instead.
void KeepMemory() {
#ifdef __GLIBC__
  mallopt(M_TRIM_THRESHOLD, 4 << 20);
  mallopt(M_TOP_PAD, 1 << 20);
#endif
}

// When the window is closed, the user logs off or the machine shuts down, Windows ends the program
// as soon as this handler returns, and after some five seconds in any case. The other gate would
// keep the links for as long as a broken link may be resumed: so they are ended first.
#ifdef _WIN32
BOOL WINAPI OnConsoleControl(DWORD event) {
  if (event == CTRL_C_EVENT) return FALSE;
  raise(SIGTERM);
  Sleep(INFINITE);
  return TRUE;
}
#endif

// Runs a gate until SIGTERM or SIGINT; SIGHUP reloads.
template <typename Gate>
int Run(const Common& common, const typename Gate::Options& options) {
#ifndef _WIN32
  signal(SIGPIPE, SIG_IGN);
#endif
  LiftDescriptorLimit();
  KeepMemory();
  const std::unique_ptr<gate::Journal> journal = common.log.empty()
                                                     ? std::make_unique<gate::Journal>()
                                                     : std::make_unique<gate::Journal>(common.log);
  boost::asio::io_context context(1);
  Gate gate(context, options, *journal);
  boost::asio::signal_set signals(context, SIGTERM, SIGINT);
#ifdef _WIN32
  SetConsoleCtrlHandler(OnConsoleControl, TRUE);
#else
  signals.add(SIGHUP);
#endif
  std::function<void()> await = [&] {
    signals.async_wait([&](const boost::system::error_code& /*error*/, int signal) {
#ifndef _WIN32
      if (signal == SIGHUP) {
        journal->Reopen();
        gate.Reload();
        return await();
      }
#endif
      journal->Write("stopping", {{"signal", signal}});
      gate.Stop();
      context.stop();
    });
  };
  await();
  journal->Write("listening", {{"port", gate.port()}, {"version", JOBMILL_VERSION}});
  context.run();
  context.restart();
  context.run_for(kLastWords);
  return kOk;
}

int Serve(ServeOptions& given) {
  given.gate.listen = gate::ReadHostAndPort(given.common.listen);
  given.gate.daemon = gate::ReadHostAndPort(given.common.to);
  given.gate.tls = given.common.tls;
  given.gate.version = JOBMILL_VERSION;
  given.gate.arrival = std::chrono::seconds(given.arrival);
  given.gate.claim = std::chrono::seconds(given.claim);
  given.gate.stream = StreamOf(given.common);
  given.gate.table.hold = HoldOf(given.common);
  if (given.gate.users.empty() && !given.gate.common_name) {
    std::fprintf(stderr,
                 "vkgate: without --users a master may claim only the very names in its "
                 "certificate\n");
  }
  return Run<gate::ServingGate>(given.common, given.gate);
}

int Connect(ConnectOptions& given) {
  given.gate.listen = gate::ReadHostAndPort(given.common.listen);
  given.gate.to = gate::ReadHostAndPort(given.common.to);
  given.gate.tls = given.common.tls;
  given.gate.connect = std::chrono::seconds(given.attempt);
  given.gate.stream = StreamOf(given.common);
  given.gate.backoff.hold = HoldOf(given.common);
  given.gate.backoff.longest =
      std::chrono::duration_cast<gate::Time>(std::chrono::duration<double>(given.longest_pause));
  given.gate.backoff.first = std::min(given.gate.backoff.first, given.gate.backoff.longest);
  return Run<gate::ConnectingGate>(given.common, given.gate);
}

void DeclareServe(CLI::App& app, ServeOptions& given, std::function<int()>& chosen) {
  CLI::App* serve = app.add_subcommand("serve", "Stand in front of a daemon");
  serve->add_option("--listen", given.common.listen, "Where connecting gates come")
      ->required()
      ->type_name("ADDRESS:PORT");
  serve->add_option("--to", given.common.to, "The daemon's port, on this machine")
      ->required()
      ->type_name("ADDRESS:PORT");
  DeclareCommon(*serve, given.common);
  serve
      ->add_option("--users", given.gate.users,
                   "Which Windows users the names in certificates may claim besides themselves")
      ->type_name("FILE");
  serve->add_flag("--common-name", given.gate.common_name,
                  "Take a certificate's common name for a name, too");
  serve
      ->add_option("--status", given.gate.status,
                   "Say there every two seconds what goes on, for jobmillctl")
      ->type_name("FILE");
  serve->add_option("--links", given.gate.table.most, "Links in all, broken ones included")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000000))
      ->type_name("NUMBER");
  serve
      ->add_option("--links-of-one", given.gate.table.most_of_one,
                   "Links of certificates with the same names")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000000))
      ->type_name("NUMBER");
  serve
      ->add_option("--arrival-wait", given.arrival,
                   "Seconds that a connection may take to prove itself")
      ->capture_default_str()
      ->check(CLI::Range(1, 3600))
      ->type_name("SECONDS");
  serve->add_option("--claim-wait", given.claim, "Seconds that a master may take to say who it is")
      ->capture_default_str()
      ->check(CLI::Range(1, 3600))
      ->type_name("SECONDS");
  serve
      ->add_option("--claim-bytes", given.gate.claim_bytes,
                   "Bytes that a master may send until it has said who it is")
      ->capture_default_str()
      ->check(CLI::Range(256, 300000))
      ->type_name("BYTES");
  serve
      ->add_option("--arriving", given.gate.most_arriving,
                   "Connections that have not proven anything yet")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000))
      ->type_name("NUMBER");
  serve->add_option("--arriving-of-one", given.gate.most_arriving_of_one, "Those of one address")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000))
      ->type_name("NUMBER");
  serve->callback([&given, &chosen] { chosen = [&given] { return Serve(given); }; });
}

void DeclareConnect(CLI::App& app, ConnectOptions& given, std::function<int()>& chosen) {
  CLI::App* connect = app.add_subcommand("connect", "Stand beside a master");
  connect->add_option("--listen", given.common.listen, "Where the master connects, on this machine")
      ->required()
      ->type_name("ADDRESS:PORT");
  connect->add_option("--to", given.common.to, "The serving gate")
      ->required()
      ->type_name("HOST:PORT");
  DeclareCommon(*connect, given.common);
  connect
      ->add_option("--server", given.gate.server,
                   "The name in the serving gate's certificate, when that is not HOST")
      ->type_name("NAME");
  connect->add_option("--masters", given.gate.most, "Masters at once")
      ->capture_default_str()
      ->check(CLI::Range(1, 10000))
      ->type_name("NUMBER");
  connect
      ->add_option("--attempt-wait", given.attempt,
                   "Seconds that one attempt to reach the serving gate may take")
      ->capture_default_str()
      ->check(CLI::Range(1, 3600))
      ->type_name("SECONDS");
  connect
      ->add_option("--longest-pause", given.longest_pause,
                   "Seconds between attempts to come back, which begin with 0.2 and grow")
      ->capture_default_str()
      ->check(CLI::Range(0.01, 3600.0))
      ->type_name("SECONDS");
  connect->callback([&given, &chosen] { chosen = [&given] { return Connect(given); }; });
}

}  // namespace

int RunProgram(int argc, const char* const* argv) {
  try {
    CLI::App app(
        "A locked door for a jobmill: TLS with certificates at both ends, and links that may "
        "break");
    app.set_version_flag("--version", "vkgate " JOBMILL_VERSION);
    app.require_subcommand(1);
    std::function<int()> chosen;
    ServeOptions serve;
    ConnectOptions connect;
    DeclareServe(app, serve, chosen);
    DeclareConnect(app, connect, chosen);
    if (const auto words = completion::Asked(argc, argv)) {
      completion::Print(completion::Complete(app, *words));
      return kOk;
    }
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? kOk : kUsage;
    }
    return chosen();
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr, "vkgate: %s\n", error.what());
    return kUsage;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vkgate: %s\n", error.what());
    return kFailed;
  }
}

}  // namespace vkgate
