#pragma once

#include <cstdint>
#include <string>

// This folder is the link to the master: blocking sockets that carry frames (this header and its
// two kinds, socket_server and socket_client), and the values packed in a frame's body (sendbuf,
// getbuf). Sockets know nothing of values, and buffers nothing of sockets but that sendbuf sends
// its reply by one, so the bytes of either can be tried without the other.

/// A blocking IPv4 TCP stream socket whose messages are frames:
///
///     offset 0  4 bytes  length N of the body, signed 32-bit, host byte order
///     offset 4  N bytes  body
///
/// The host byte order is little-endian on x86-64, which is what the master expects.
///
/// Copies share the descriptor; it is closed when the last of them goes. All descriptors made here
/// are closed on exec. Receives have no time limit: a silent peer blocks the caller until the
/// connection breaks. Transfers never throw; without memory for what they carry they fail, with
/// ENOMEM in errno. One thread uses an object.
///
/// The process must ignore SIGPIPE; a send to a peer that has gone is then noticed at the next
/// receive.
class Socket {
 public:
  /// A new, unconnected TCP socket. Throws the `const char*` "INVALID_SOCKET" when there is none.
  Socket();

  /// Takes over `handle`, for example an accepted connection.
  explicit Socket(int handle);

  Socket(const Socket& other);

  /// Shares the descriptor of `other`. The descriptor held before stays open and is nobody's from
  /// then on, so assign to fresh objects only.
  // NOLINTNEXTLINE(misc-unconventional-assign-operator): only fresh sockets are assigned to
  Socket& operator=(Socket& other);

  virtual ~Socket();

  /// The bracket around a program's use of sockets.
  static void Start();
  static void End();

  /// Closes the descriptor at once, even while copies share it. The object then holds none.
  void Close();

  /// Receives one frame into `buffer`, which must hold master_link::kMaxFrame bytes; only the first
  /// `capacity` of them are cleared before. Blocks until the frame is whole.
  ///
  /// Returns 0 with the size of the body in `length`; -1 when the length field was 0 or negative,
  /// or the peer had closed before a frame began; 1, with `length` 0, on a receive error or when
  /// the body is longer than kMaxFrame. A peer that only stops sending in mid-frame is waited for
  /// until the connection breaks or the peer has closed for good, which is a receive error.
  int ReceiveLine(char* buffer, int capacity, int& length);

  /// Receives one frame of the handshake, at most kMaxLine bytes. Blocks until it is whole.
  ///
  /// Returns the body with its size in `length`. Empty with `length` 0 when the peer closed or the
  /// receive failed; empty with the received `length` when that is 0 or negative. On a
  /// non-blocking descriptor, what had arrived before the first wait. A longer frame never
  /// completes: it is read and dropped until the peer goes.
  std::string ReceiveLine(int& length);

  /// Sends `text` as one frame in one piece, not retried when it leaves short. Returns the bytes
  /// that left, the four of the length included, or -1.
  int SendLine(const std::string& text);

  /// Sends `size` bytes as one frame in one piece, not retried when it leaves short. Returns 0 when
  /// all of the frame left, else 1.
  int SendLine(const char* body, unsigned size);

  /// Sends bytes without a frame in one piece, not retried when they leave short. Returns 0 when
  /// all of them left, else 1.
  int SendBytes(const std::string& bytes);
  int SendBytes(const char* bytes, unsigned size);

  /// What has arrived and was not yet read, without a frame; empty when there is nothing.
  std::string ReceiveBytes();

  /// Writes the first IPv4 address of `host_name` in dotted form to the 16 bytes of `address`.
  /// Returns 0, or 1 with an empty `address` when the name is unknown. Blocks for the look-up.
  static int GetIPAddr(const char* host_name, char* address);

  /// The same for this machine's own name.
  static int GetIPAddr(char* address);

 protected:
  int handle_;                ///< -1 after Close()
  std::int32_t* references_;  ///< shared by all copies

  /// Sockets that are alive, and calls of Start(). For diagnostics alone.
  static std::int32_t nofSockets_;
};
