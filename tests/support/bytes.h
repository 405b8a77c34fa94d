#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

// What all tests say bytes with. A byte string is a std::string, zeros included.

/// The bytes that `notation` writes down: Bytes("08 00 'text' 3*(ff)"). Two hexadecimal digits are
/// a byte, a text in quotes its characters; tests/hostile/README.md has the whole notation. Throws
/// std::invalid_argument, with the place, for anything else.
std::string Bytes(std::string_view notation);

/// The words that the notation knows: those that stand before a parenthesis.
std::vector<std::string> NotationWords();

/// The reverse of Bytes(), to print what came: "08 00 00 00".
std::string Hex(std::string_view bytes);

/// Bytes for people: text as it is, the rest as \xNN, long ones cut in the middle.
std::string Readable(std::string_view bytes);

/// A number as it stands on both links.
template <class T>
requires std::is_arithmetic_v<T> || std::is_enum_v<T> std::string Image(T value) {
  std::string bytes(sizeof(value), '\0');
  memcpy(bytes.data(), &value, sizeof(value));
  return bytes;
}

/// The number that stands at `place`, 0 when the bytes end before.
template <class T>
T NumberAt(std::string_view bytes, std::size_t place = 0) {
  T value{};
  if (place + sizeof(value) <= bytes.size()) {
    memcpy(&value, bytes.data() + place, sizeof(value));
  }
  return value;
}

/// A text in a frame of the master's link: its length in 32 bits, then the text.
inline std::string PackedText(std::string_view text) {
  return Image(static_cast<std::uint32_t>(text.size())).append(text);
}

/// A frame of the master's link, which has a text's form.
inline std::string Frame(std::string_view body) {
  return PackedText(body);
}

/// The bodies of the frames that `bytes` hold; what is left of a frame that is not whole comes
/// last, after the text "torn: ".
inline std::vector<std::string> FramesOf(std::string_view bytes) {
  std::vector<std::string> frames;
  while (!bytes.empty()) {
    constexpr std::size_t kLength = sizeof(std::uint32_t);
    const std::size_t whole = kLength + NumberAt<std::uint32_t>(bytes);
    if (bytes.size() < kLength || bytes.size() < whole) {
      frames.push_back("torn: " + std::string(bytes));
      break;
    }
    frames.emplace_back(bytes.substr(kLength, whole - kLength));
    bytes.remove_prefix(whole);
  }
  return frames;
}

/// Reads `size` bytes from `descriptor`; fewer when it ends before, or is silent for so many
/// milliseconds (-1: waits for ever).
inline std::string ReadExactly(int descriptor, std::size_t size, int patience = 30'000) {
  std::string bytes;
  while (bytes.size() < size) {
    pollfd waited{descriptor, POLLIN, 0};
    const int ready = poll(&waited, 1, patience);
    if (ready < 0 && errno == EINTR) continue;
    if (ready != 1) break;
    const std::size_t had = bytes.size();
    bytes.resize(std::min<std::size_t>(size, had + 65536));
    const ssize_t got = read(descriptor, bytes.data() + had, bytes.size() - had);
    bytes.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got == 0 || (got < 0 && errno != EINTR)) break;
  }
  return bytes;
}

/// All that has arrived at a socket and was not read yet; does not wait.
inline std::string Arrived(int descriptor) {
  std::string bytes;
  char part[65536];
  ssize_t got = 0;
  while ((got = recv(descriptor, part, sizeof(part), MSG_DONTWAIT)) > 0) {
    bytes.append(part, static_cast<std::size_t>(got));
  }
  return bytes;
}

/// Writes all of `bytes` to `descriptor`, waiting for room; false when the other end does not take
/// them. No signal comes of that when it is a socket.
inline bool WriteAll(int descriptor, std::string_view bytes) {
  struct stat kind {};
  const bool socket = fstat(descriptor, &kind) == 0 && S_ISSOCK(kind.st_mode);
  while (!bytes.empty()) {
    const ssize_t put = socket ? send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL)
                               : write(descriptor, bytes.data(), bytes.size());
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(put));
  }
  return true;
}
