#include "tools/vkmaster/command_line/hints.h"

#include <stdexcept>
#include <string_view>

#include <fmt/format.h>

#include "master/errors.h"
#include "tools/vkmaster/command_line/options.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

const char* const kDaemonLog =
    "the daemon's log (VKJobmill_PORT.log in /var/log/jobmill, /var/log or /tmp on its host)";

std::string HintForConnect(const std::string& text, const Launched& launched) {
  if (text.find("refused") != std::string::npos) {
    return fmt::format(
        "Nobody listens there. Is the daemon running on {}, and is {} the port that it was given "
        "with -p?",
        launched.daemon_host, launched.daemon_port);
  }
  if (text.starts_with("Unknown host")) return "Check --host; the name has to have an IPv4 address";
  return "Check --host and --port, and whether a firewall lies between";
}

std::string HintForFailedRequest(const std::string& text, const Launched& launched,
                                 bool connecting) {
  std::string hint = fmt::format(
      "The daemon ends the connection when a request fails, and the run with it. The reason is in "
      "the comms log {}, which the daemon writes when it was started with -l",
      CommsLog(launched.request));
  if (connecting && text.find("(Connect)") != std::string::npos) {
    hint += fmt::format(
        ". On connecting: did the simulator start on {} within the daemon's time-out (-t), and is "
        "{} its version (--api)?",
        launched.simulator_host, launched.request.version);
  }
  return hint;
}

}  // namespace

std::string HintForRefusal(const std::string& text, const master::RunRequest& request) {
  const auto begins = [&text](std::string_view with) { return text.starts_with(with); };
  if (text.empty()) {
    return fmt::format("The daemon gave no reason; see the end of {}", kDaemonLog);
  }
  if (begins("Failed to read main environment file")) {
    return fmt::format(
        "The file .vk_corvane_env beside the daemon's program could not be read; {} has its name "
        "and the reason",
        kDaemonLog);
  }
  if (begins("Could not open the user administration file")) {
    return "The file .vk_corvane_users has to lie beside the daemon's program, readable for it; or "
           "the daemon is started with -u, without mapping users";
  }
  if (begins("Windows user") && text.ends_with("not found in administration file")) {
    return fmt::format(
        "Give another --user, or have a line \"{} LINUX_ACCOUNT 1\" added to .vk_corvane_users "
        "beside the daemon's program (from a package /etc/jobmill/users); it counts from the next "
        "launch on. Blanks separate there, a tab belongs to the name. An empty or incomplete "
        "line ends that file: users below it are not found",
        request.user);
  }
  if (begins("Windows user") && text.ends_with("does not have permissions to run Varnok")) {
    return "The user's line in .vk_corvane_users beside the daemon's program ends in 0; 1 allows "
           "the user";
  }
  if (begins("Failed to get password entry for")) {
    return "The Linux account that .vk_corvane_users names for the user does not exist on the "
           "daemon's host (getent passwd NAME shows it when it does)";
  }
  if (begins("Failed to set user ID for Tolmen job")) {
    return "The number is the system's error: 1 means that the daemon lacks the right to change "
           "accounts (it runs as root or with -u), 11 that the account has too many processes";
  }
  if (begins("No host detected")) {
    return fmt::format(
        "The distribution script ended without a line HOST=name; {} has all that it printed. Is "
        "the daemon's script (-s) executable, do {} and the model {} exist on the daemon's host, "
        "and may the account read and write there? The log also says when the port for the "
        "simulator was taken (the daemon's -o gives the first of them)",
        kDaemonLog, request.path, request.root);
  }
  return fmt::format("The text is the daemon's; see also {}", kDaemonLog);
}

Failure Explain(const std::exception& error, const Launched& launched, bool connecting) {
  const std::string text = error.what();
  if (dynamic_cast<const UsageError*>(&error) != nullptr ||
      dynamic_cast<const std::invalid_argument*>(&error) != nullptr) {
    return {kUsage, text, "", true};
  }
  if (dynamic_cast<const master::RequestTooLong*>(&error) != nullptr) {
    return {kUsage, text, "Give the wells in several commands", true};
  }
  if (const auto* refused = dynamic_cast<const master::LaunchRefused*>(&error)) {
    return {kNotLaunched, text, HintForRefusal(refused->text(), launched.request)};
  }
  if (dynamic_cast<const master::ConnectError*>(&error) != nullptr) {
    return {kNotLaunched, text, HintForConnect(text, launched)};
  }
  if (dynamic_cast<const master::RequestFailed*>(&error) != nullptr) {
    return {kRequestFailed, text, HintForFailedRequest(text, launched, connecting)};
  }
  if (dynamic_cast<const master::LinkLost*>(&error) != nullptr) {
    return {
        kLinkLost, text,
        fmt::format("Is the daemon's host up? What it last did is in {} and in the comms log {}",
                    kDaemonLog, CommsLog(launched.request))};
  }
  if (dynamic_cast<const master::ProtocolError*>(&error) != nullptr) {
    return {kBadAnswer, text,
            "Is it a jobmill daemon, and of the same version, that listens there?"};
  }
  return {kInternal, text, ""};
}

}  // namespace vkmaster
