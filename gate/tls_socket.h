#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "gate/tls_context.h"

STACK_OF(X509);

namespace gate {

/// TLS over a connected, non-blocking socket, which OpenSSL reads and writes itself: no buffers
/// between, and none at all while nothing is said. No call waits. The owner waits until the socket
/// is ready for what a call has wanted, and calls again.
///
/// Writing to a peer that has gone raises SIGPIPE where there are signals: the program ignores it,
/// or blocks it in the thread.
///
/// The end of what the peer says is a matter of the stream above: the end of TLS or of the
/// connection is always a break here.
class TlsSocket {
 public:
  enum class Result {
    kDone,       ///< it is done, in part perhaps
    kWantRead,   ///< nothing was done: the socket has to be readable first
    kWantWrite,  ///< nothing was done: the socket has to take bytes first
    kBroken,     ///< the connection is of no more use; error() says why
  };

  /// AES-GCM may have 2^24.5 records with one key. Long before that this side takes a new one.
  static constexpr std::uint64_t kRecordsPerKey = std::uint64_t{1} << 22;

  /// How often the peer may take a new key between two of its bytes. OpenSSL reads on until a byte
  /// comes: new keys without end would keep one call, and with it all links, busy for as long.
  static constexpr int kKeyUpdatesInARow = 32;

  /// `socket` stays the caller's, open and non-blocking as long as this object lives. `host`, of
  /// the connecting side: the name or address for which the peer's certificate has to be; empty on
  /// the serving side. Throws std::runtime_error.
  TlsSocket(std::uintptr_t socket, std::shared_ptr<const TlsContext> context,
            const std::string& host, std::uint64_t records_per_key = kRecordsPerKey);
  TlsSocket(const TlsSocket&) = delete;
  TlsSocket& operator=(const TlsSocket&) = delete;
  ~TlsSocket();

  Result Handshake();

  /// `got` bytes came.
  Result Read(std::span<char> buffer, std::size_t& got);

  /// `put` bytes left. After kWantWrite the next call has to be given the same bytes again,
  /// wherever they lie by then, and perhaps more.
  Result Write(std::string_view bytes, std::size_t& put);

  /// Tells the peer, if there is room for that, that nothing more will come.
  void SayGoodbye();

  /// Why it is broken: a sentence. "The connection has ended" where the peer has just gone.
  std::string error() const { return error_; }

  /// The peer's certificate and what it was verified with; null before the handshake is done. They
  /// live as long as this object.
  X509* certificate() const;
  STACK_OF(X509) * chain() const;

  /// What tells the authority that has signed the peer's certificate from all others: the digest of
  /// its key, which a renewed certificate of the authority keeps. Empty before the handshake is
  /// done.
  std::string authority() const;

 private:
  Result Outcome(int result, const char* what);
  static void CountKeyUpdates(int written, int version, int type, const void* bytes,
                              std::size_t size, SSL* tls, void* self);

  std::shared_ptr<const TlsContext> context_;
  SSL* tls_;
  std::uint64_t records_per_key_;
  std::uint64_t records_ = 0;  // with the present key
  int key_updates_ = 0;        // of the peer, in the present call
  std::string error_;
};

/// SHA-256 of a certificate, in hexadecimal digits: what tells it from all others.
std::string FingerprintOf(const X509& certificate);

}  // namespace gate
