#include "daemon/options.h"

#include <algorithm>
#include <string_view>

#include "base/number.h"
#include "daemon/globals.h"

namespace {

constexpr std::int32_t kLeastStartTimeout = 5;
constexpr std::int32_t kLeastCommsBasePort = 2048;
constexpr std::int32_t kLeastCommsPorts = 2;

}  // namespace

Options ParseOptions(int argc, const char* const* argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : argv[i];
    const auto number = static_cast<std::int32_t>(NumberIn(value));
    const auto is = [option](std::string_view lower, std::string_view upper) {
      return option == lower || option == upper;
    };
    if (is("-v", "-V")) {
      options.version = true;
      break;
    }
    if (is("-u", "-U")) options.run_as_root = false;
    if (is("-p", "-P")) options.listen_port = number;
    if (is("-t", "-T")) options.start_timeout = std::max(number, kLeastStartTimeout);
    if (is("-o", "-O")) options.comms_base_port = std::max(number, kLeastCommsBasePort);
    if (is("-n", "-N")) options.comms_ports = std::max(number, kLeastCommsPorts);
    if (is("-l", "-L")) options.comms_log = true;
    if (option == "-s") options.script = value;
  }
  return options;
}

std::string UsageText() {
  return "Usage: vkjobmill.exe.\n"
         "-p <listen_port> - port on which to listen for Corvane requests\n"
         "-o <comms base port> - start port for VK-controller communication, will be incremented "
         "with each run (default 9001)\n"
         "-n <number of free comms ports> - number of free ports, starting from the base port, for "
         "VK-controller communication (default 100)\n"
         "-s <script> - distribution script (fully qualified path)\n"
         "-t <timeout(s)> - the time to wait for Varnok to start (not including any 'PEND' time), "
         "default = 60\n"
         "-u - run under this user account (not root)\n"
         "-l - generate comms log file in data directory\n"
         "-v - print version information\n";
}

std::string VersionText() {
  return "Jobmill.\nProtocol version: " + std::to_string(kProtocolMajor) + "." +
         std::to_string(kProtocolMinor) + ".\nZRM compatibility version: " + GsZRMVersion +
         "\nVarnok API version compatibility: built with API for V2016.2 ->\n";
}
