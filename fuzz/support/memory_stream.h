#pragma once

#include <string>
#include <string_view>

/// The simulator's end of the stream in the targets that are linked with this (jobmill_fuzz(...
/// MEMORY_STREAM)): it takes the place of the TCP stream below the transport. The simulator has
/// sent everything beforehand and then closed; every connection succeeds.
struct MemoryStream {
  std::string_view incoming;  ///< what the simulator has sent, not read so far
  std::string sent;           ///< what was sent to it

  /// Starts anew; keeps the memory of `sent`. `bytes` are framed and stay the caller's.
  void Begin(std::string_view bytes) {
    incoming = bytes;
    sent.clear();
  }
};

extern MemoryStream memory_stream;
