#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// What the system's socket calls work on in the targets that are linked with this: one connection
/// whose peer has sent everything beforehand. The linker sends recv(), send() and poll() here
/// (jobmill_fuzz(... MEMORY_LINK)), whatever their descriptor: a kernel's socket costs more than
/// all that is tested behind it.
struct MemoryLink {
  std::string_view incoming;  ///< what the peer has sent, not received so far
  std::size_t piece = 0;      ///< the most that one receive gives; 0: no limit
  int error = 0;              ///< how receives end after that: 0 closed by the peer, else an errno
  std::string sent;           ///< what was sent to the peer

  /// Starts a new connection; keeps the memory of `sent`.
  void Begin(std::string_view bytes, std::size_t pieces = 0, int errorAtEnd = 0) {
    incoming = bytes;
    piece = pieces;
    error = errorAtEnd;
    sent.clear();
  }
};

extern MemoryLink memoryLink;
