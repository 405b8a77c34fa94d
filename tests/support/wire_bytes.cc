#include "tests/support/wire_bytes.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace wire {
namespace {

constexpr int kPatienceInMilliseconds = 5000;

template <typename T>
std::string Image(const T& value) {
  std::string bytes(sizeof(T), '\0');
  std::memcpy(bytes.data(), &value, sizeof(T));
  return bytes;
}

std::string Header(const std::string& name, std::uint64_t count, const std::string& tag) {
  return Image(static_cast<std::uint8_t>(name.size())) + name + Image(count) + tag;
}

template <typename T>
std::string Numbers(const std::string& header, const std::vector<T>& values) {
  std::string bytes = header;
  for (const T& value : values) bytes += Image(value);
  return bytes;
}

int Digit(char c) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const std::size_t digit = kDigits.find(c);
  if (digit == std::string_view::npos)
    throw std::invalid_argument(std::string("not a hexadecimal digit: ") + c);
  return static_cast<int>(digit);
}

[[noreturn]] void ThrowErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

std::string Bytes(std::string_view text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ' ' || text[i] == '\n') continue;
    if (text[i] == '\'') {
      const std::size_t end = text.find('\'', i + 1);
      if (end == std::string_view::npos) throw std::invalid_argument("quote without its end");
      bytes += text.substr(i + 1, end - i - 1);
      i = end;
      continue;
    }
    if (i + 1 == text.size()) throw std::invalid_argument("half a byte at the end");
    bytes += static_cast<char>(Digit(text[i]) * 16 + Digit(text[i + 1]));
    ++i;
  }
  return bytes;
}

std::string Mess(const std::string& name) {
  return Header(name, 0, "MESS");
}

std::string Doub(const std::string& name, const std::vector<double>& values) {
  return Numbers(Header(name, values.size(), "DOUB"), values);
}

std::string Inte(const std::string& name, const std::vector<int>& values) {
  return Numbers(Header(name, values.size(), "INTE"), values);
}

std::string Cstr(const std::string& name, const std::vector<std::string>& values) {
  std::string bytes = Header(name, values.size(), "CSTR");
  for (const std::string& value : values) bytes += Image<std::uint64_t>(value.size()) + value;
  return bytes;
}

std::string Framed(const std::string& message) {
  constexpr std::size_t kChunk = 65536;
  std::string bytes = Image<std::uint64_t>(message.size());
  std::size_t offset = 0;
  do {
    const std::size_t chunk = std::min(kChunk, message.size() - offset);
    bytes += Image<std::uint64_t>(chunk) + message.substr(offset, chunk);
    offset += chunk;
  } while (offset < message.size());
  return bytes;
}

Pair SocketPair() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
    ThrowErrno("socketpair");
  return {ends[0], ends[1]};
}

void WriteAll(int descriptor, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t sent = send(descriptor, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) ThrowErrno("send");
    done += static_cast<std::size_t>(sent);
  }
}

std::string Read(int descriptor, std::size_t size) {
  std::string bytes;
  while (bytes.size() < size) {
    pollfd waited{descriptor, POLLIN, 0};
    if (poll(&waited, 1, kPatienceInMilliseconds) != 1) break;
    std::string piece(std::min<std::size_t>(size - bytes.size(), 65536), '\0');
    const ssize_t got = recv(descriptor, piece.data(), piece.size(), 0);
    if (got <= 0) break;
    bytes.append(piece, 0, static_cast<std::size_t>(got));
  }
  return bytes;
}

std::string ReadPending(int descriptor) {
  std::string bytes(1 << 20, '\0');
  const ssize_t got = recv(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT);
  bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  return bytes;
}

}  // namespace wire
