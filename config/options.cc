#include "config/options.h"

#include <algorithm>
#include <string_view>

#include "base/number.h"

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

Options ParseOptions(const std::vector<std::string>& words) {
  std::vector<const char*> pointers;
  pointers.reserve(words.size());
  for (const std::string& word : words) pointers.push_back(word.c_str());
  return ParseOptions(static_cast<int>(pointers.size()), pointers.data());
}
