#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// What the system's socket calls work on in the targets that are linked with this: one connection
/// whose peer has sent everything beforehand. The linker sends recv(), send() and poll() here
/// (jobmill_fuzz(... MEMORY_LINK)), whatever their descriptor: a kernel's socket costs more than
/// all that is tested behind it.
///
/// A send that may wait waits for the peer to make room, and meanwhile a child of the process ends:
/// unless its signal is held back, the send is interrupted with half of its bytes gone.
struct MemoryLink {
  static constexpr std::size_t kAnyRoom = static_cast<std::size_t>(-1);

  std::string_view incoming;  ///< what the peer has sent, not received so far
  std::size_t piece = 0;      ///< the most that one receive gives; 0: no limit
  int error = 0;              ///< how receives end after that: 0 closed by the peer, else an errno
  std::size_t room = kAnyRoom;  ///< the most that a send gives away without waiting
  int send_error = 0;           ///< an errno that every send ends with, if not 0
  std::string sent;             ///< what was sent to the peer

  /// Starts a new connection, with any room; keeps the memory of `sent`.
  void Begin(std::string_view bytes, std::size_t pieces = 0, int error_at_end = 0) {
    incoming = bytes;
    piece = pieces;
    error = error_at_end;
    room = kAnyRoom;
    send_error = 0;
    sent.clear();
  }

  /// The room that five bits of an input say: any, 0 to 23 bytes, or a power of two.
  static std::size_t Room(unsigned bits) {
    if (bits == 0) return kAnyRoom;
    return bits <= 24 ? bits - 1 : std::size_t{1} << (bits - 20);
  }

  /// Whether the process gets no signal of a child's end, which only a waiting send may bring
  /// about.
  static bool HoldsChildrenBack();
};

extern MemoryLink memory_link;
