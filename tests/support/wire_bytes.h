#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Bytes of the external-controller protocol, written without the code that is under test. A byte
// string is a std::string, zeros included.
namespace wire {

/// Bytes written as in the protocol's pages: pairs of hexadecimal digits, 'text' for its
/// characters, blanks and line ends between them. Throws std::invalid_argument for anything else.
std::string Bytes(std::string_view text);

/// One header with its data.
std::string Mess(const std::string& name);
std::string Doub(const std::string& name, const std::vector<double>& values);
std::string Inte(const std::string& name, const std::vector<int>& values);
std::string Cstr(const std::string& name, const std::vector<std::string>& values);

/// A message as it travels, cut into chunks of 65,536 bytes.
std::string Framed(const std::string& message);

/// Two connected stream descriptors. Throws std::system_error.
struct Pair {
  int ours = -1;
  int theirs = -1;
};
Pair SocketPair();

/// Writes all bytes; throws std::system_error.
void WriteAll(int descriptor, const std::string& bytes);

/// Reads until `size` bytes are there or the peer has closed. Waits at most five seconds for each
/// piece; what has come until then is the result.
std::string Read(int descriptor, std::size_t size);

/// What lies ready to be read, without waiting.
std::string ReadPending(int descriptor);

}  // namespace wire
