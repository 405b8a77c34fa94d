#include "master/launch.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "master/errors.h"
#include "master/request_writer.h"
#include "master/run.h"

namespace master {
namespace {

constexpr std::string_view kVersion = "3";
constexpr std::string_view kAccepted = "OK|";

// The protocol has the version as a number: 2017.2 is sent as 20172.
std::string WithoutDot(std::string version) {
  if (version.size() == 6 && version[4] == '.') version.erase(4, 1);
  return version;
}

std::array<std::pair<const char*, std::string>, 7> Lines(const RunRequest& request) {
  return {{{"cluster number", request.cluster},
           {"data path", request.path},
           {"root name", request.root},
           {"process count", request.processes},
           {"simulator version", WithoutDot(request.version)},
           {"user name", request.user},
           {"debug flag", request.debug}}};
}

bool IsNumberNotZero(const std::string& text) {
  long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() && value != 0;
}

}  // namespace

std::string Launch::ExchangeVersions(const Deadline& deadline) {
  const std::optional<std::string> version = channel_.Receive(deadline);
  if (!version) throw LaunchRefused("");
  if (!IsNumberNotZero(*version)) {
    throw ProtocolError("No jobmill daemon: '" + *version + "' instead of a protocol version");
  }
  channel_.Send(kVersion);
  return *version;
}

void Launch::Request(const RunRequest& request) {
  const auto lines = Lines(request);
  for (const auto& [what, text] : lines) {
    if (text.size() >= kLineLimit) {
      throw std::invalid_argument("The " + std::string(what) +
                                  " is too long: " + std::to_string(text.size()) + " characters");
    }
  }
  try {
    for (const auto& line : lines) channel_.Send(line.second);
  } catch (const LinkLost&) {
    // The daemon has closed the connection already. AwaitHost() reads its reason.
  }
}

std::string Launch::AwaitHost(const Deadline& deadline) {
  std::optional<std::string> answer;
  try {
    answer = channel_.Receive(deadline);
  } catch (const LinkLost&) {
    // Lines that the daemon left unread when it closed turn the end of the connection into a reset.
    throw LaunchRefused("");
  }
  if (!answer) throw LaunchRefused("");
  if (!answer->starts_with(kAccepted)) throw LaunchRefused(*answer);
  std::string host = answer->substr(kAccepted.size());
  // The daemon sends the newline of the script's host line, if it had one, as a zero byte.
  host.resize(std::min(host.size(), host.find('\0')));
  return host;
}

void Launch::GiveUp() {
  try {
    for (const Code code : {Code::kConnect, Code::kShutdown}) {
      channel_.Send(RequestWriter(static_cast<std::uint32_t>(code)).body());
    }
    channel_.FinishSending();
  } catch (const Error&) {
    // The daemon is gone, and with it the launch.
  }
}

}  // namespace master
