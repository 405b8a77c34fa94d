// What the distribution script prints: the host is that of the first line that names one, with a
// zero byte for its newline, nothing after that line counts, and without a host the master is
// told so.

#include <stdio.h>
#include <stdio_ext.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "daemon/launch.h"
#include "daemon/refusal.h"
#include "fuzz/support/input.h"
#include "fuzz/support/promise.h"
#include "log/flog.h"

namespace {

constexpr std::size_t kPart = 1023;  // longer lines come in parts

std::string_view output;

ssize_t ReadOutput(void* /*cookie*/, char* target, std::size_t size) {
  const std::size_t got = std::min(size, output.size());
  if (got > 0) std::memcpy(target, output.data(), got);
  output.remove_prefix(got);
  return static_cast<ssize_t>(got);
}

// A standard input that gives `output`. Reading through the C library is part of what is tested.
FILE* Script() {
  static char buffer[4096];
  FILE* file =
      fopencookie(nullptr, "r", {.read = ReadOutput, .write = {}, .seek = {}, .close = {}});
  PROMISE(file != nullptr);
  setvbuf(file, buffer, _IOFBF, sizeof(buffer));
  return file;
}

std::optional<std::string> Expected(std::string_view text) {
  while (!text.empty()) {
    std::string_view part = text.substr(0, kPart);
    part = part.substr(0, std::min(part.find('\n'), part.size() - 1) + 1);
    text.remove_prefix(part.size());
    if (!part.starts_with("HOST=")) continue;
    std::string host(part.substr(5, part.find('\0') == std::string_view::npos
                                        ? std::string_view::npos
                                        : part.find('\0') - 5));
    const std::size_t first = host.find_first_not_of(' ');
    if (first == std::string::npos || host[first] == '\n') return std::nullopt;
    if (host.back() == '\n') host.back() = '\0';
    return host;
  }
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static flog log("", true);
  static FILE* const script = Script();
  const std::string_view text = Input(data, size).Rest();
  output = text;
  stdin = script;
  std::optional<std::string> host;
  try {
    host = AwaitHost(log);
  } catch (const Refusal& refusal) {
    PROMISE(refusal.text == "No host detected");
  }
  PROMISE(host == Expected(text));
  // The rest of the output is nobody's.
  __fpurge(script);
  clearerr(script);
  return 0;
}
