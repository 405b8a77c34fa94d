#include "inspect/file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <system_error>

#include "base/descriptor.h"
#include "config/regular_file.h"

namespace inspect {
namespace {

constexpr std::size_t kMostBytes = std::size_t{16} << 20;

}  // namespace

std::optional<std::string> ReadFile(const std::string& name) {
  errno = EINVAL;  // for what is there and is no regular file
  if (!IsRegularFile(name.c_str())) return std::nullopt;
  const Descriptor file(open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string text;
  std::array<char, 65536> part{};
  ssize_t size = 0;
  while ((size = read(file.get(), part.data(), part.size())) > 0) {
    text.append(part.data(), static_cast<std::size_t>(size));
    if (text.size() > kMostBytes) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
  if (size < 0) return std::nullopt;
  return text;
}

std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    text = end == std::string_view::npos ? "" : text.substr(end + 1);
  }
  return lines;
}

std::string RealName(const std::string& name) {
  std::error_code error;
  const auto real = std::filesystem::canonical(name, error);
  return error ? name : real.string();
}

std::string Printable(std::string_view text) {
  std::string printable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f) {
      printable += c;
      continue;
    }
    std::array<char, 8> escape{};
    snprintf(escape.data(), escape.size(), "\\x%02x", byte);
    printable += escape.data();
  }
  return printable;
}

std::string WritableBy(const std::string& name, bool own_account) {
  bool directory = false;
  for (std::filesystem::path path = name;; path = path.parent_path(), directory = true) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return "";
    const std::string what = directory ? "its directory " + path.string() + " " : "it ";
    if (status.st_uid != 0 && !(own_account && status.st_uid == geteuid())) {
      return what + "belongs to account " + std::to_string(status.st_uid);
    }
    // In a directory like /tmp others may add files, and only the owner may replace one.
    if ((status.st_mode & 022) != 0 && !(directory && (status.st_mode & S_ISVTX) != 0)) {
      std::array<char, 16> mode{};
      snprintf(mode.data(), mode.size(), "%04o", status.st_mode & 07777);
      return what + "has the mode " + mode.data();
    }
    if (path == path.parent_path()) return "";
  }
}

}  // namespace inspect
