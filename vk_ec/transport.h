#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vk_ec/stream_socket.h"

namespace vk_ec {

/// The bytes of one message on their way out. They are not owned and must outlive the sending.
///
/// On the wire (all numbers unsigned 64-bit, little-endian) a message is its total length, the
/// length of the first chunk, the chunk; then, while bytes remain, the length of the next chunk
/// and the chunk. Every chunk but the last has `kChunkSize` bytes. An empty message is two zeros.
class SendMessage {
 public:
  static constexpr std::uint64_t kChunkSize = 65536;

  SendMessage(const unsigned char* bytes, std::uint64_t size) : bytes_(bytes), size_(size) {}

  /// Writes the whole framed message and blocks until it is with the system. Throws as
  /// `StreamSocket::write`; nothing is retried.
  void send(StreamSocket& socket) const;

  /// The parts of a framed message, one write each. `send` does not use them, since it writes each
  /// length together with its chunk.
  static void send_initial_header(std::uint64_t total, std::uint64_t first_chunk_length,
                                  StreamSocket& socket);
  static void send_header(std::uint64_t chunk_length, StreamSocket& socket);
  static void send_buffer(const unsigned char* bytes, std::uint64_t length, StreamSocket& socket);

 private:
  const unsigned char* bytes_;
  std::uint64_t size_;
};

/// One message on its way in. Chunks may have any length that does not exceed what is still due.
class RecvMessage {
 public:
  /// Up to this announced total the buffer is sized once. For a longer message it begins with the
  /// room for one usual chunk and doubles as the bytes arrive: a peer's number alone must not take
  /// the memory.
  static constexpr std::uint64_t kTrustedTotal = 64ULL << 20;

  /// Blocks until one whole message is in `buffer`. A buffer that is not empty is
  /// `std::logic_error`, and nothing is read. `std::length_error` if a chunk is longer than what is
  /// due or, after the first, of length 0; `boost::system::system_error` if a read fails. A failure
  /// after the initial header leaves `buffer` non-empty.
  RecvMessage(StreamSocket& socket, std::vector<unsigned char>& buffer);

  /// Empties the buffer.
  void finalize() { buffer_.clear(); }

  /// The steps of the reception. The initial header is (total length, first chunk length).
  static std::pair<std::uint64_t, std::uint64_t> read_initial_header(StreamSocket& socket);
  static std::uint64_t read_header(StreamSocket& socket);
  static void read_payload(unsigned char* bytes, std::uint64_t length, StreamSocket& socket);
  static void receive_buffer(unsigned char* bytes, std::uint64_t length, StreamSocket& socket);

 private:
  void receive_chunk(std::uint64_t offset, std::uint64_t length, std::uint64_t total,
                     StreamSocket& socket);

  std::vector<unsigned char>& buffer_;
};

/// Either end of one connection, carrying whole messages. Not for use by two threads at once.
class Transporter {
 public:
  /// Takes over a connected stream descriptor (TCP or a socket pair) and closes it in the end.
  explicit Transporter(int connected_descriptor);

  /// `send` blocks and throws as `SendMessage::send`, `recv` as the constructor of `RecvMessage`.
  void send(const SendMessage& message) { message.send(socket_); }
  void recv(std::vector<unsigned char>& buffer) { RecvMessage(socket_, buffer); }

  /// Where a simulator listens unless it is told otherwise.
  static constexpr unsigned default_port() { return 9001; }

 protected:
  Transporter() = default;
  StreamSocket& socket() { return socket_; }

 private:
  StreamSocket socket_;
};

/// The end that opens the connection.
class ClientTransporter : public Transporter {
 public:
  /// The socket stays unopened until `connect`.
  ClientTransporter() = default;
  using Transporter::Transporter;

  /// Connects to the first IPv4 endpoint of `host` that accepts, at a pace of at most two attempts
  /// a second, since the simulator begins to listen only some time after its launch. Gives up with
  /// `std::runtime_error` "Connection timed out." when the elapsed seconds, truncated, exceed
  /// `timeout`: 0 still tries for a second. A failed host look-up is thrown at once, as
  /// `boost::system::system_error`. The connection gets keep-alive probes: during a step of hours
  /// without a byte they find out that the simulator's machine has gone.
  void connect(const std::string& host, unsigned port, unsigned timeout);
};

}  // namespace vk_ec
