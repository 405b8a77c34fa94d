#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace master {

/// A failure of the link or the daemon. After any of these but TimedOut and Interrupted the link is
/// of no further use: the protocol has no error reply, and no way to find the next frame again.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// No connection to the daemon: unknown host, nobody listening, no answer in time.
class ConnectError : public Error {
 public:
  using Error::Error;
};

/// The daemon answered the run request with something else than a host, or ended the connection.
class LaunchRefused : public Error {
 public:
  explicit LaunchRefused(std::string text)
      : Error(text.empty() ? "The daemon ended the connection without a word" : text),
        text_(std::move(text)) {}

  /// The daemon's own text; empty when it ended the connection without one.
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/// The daemon closed the connection while an answer was due. That is how it reports a request that
/// failed: there is no error reply.
class RequestFailed : public Error {
 public:
  using Error::Error;
};

/// The connection broke: reset, cut in the middle of a frame, unreachable peer.
class LinkLost : public Error {
 public:
  using Error::Error;
};

/// The daemon, or its system, has reset the connection. When requests were sent ahead that is how
/// the daemon closes it on one that failed: it leaves the others unread.
class LinkReset : public LinkLost {
 public:
  using LinkLost::LinkLost;
};

/// The answer does not fit the request: another code, too short, too long, a negative count.
class ProtocolError : public Error {
 public:
  using Error::Error;
};

/// A time limit passed.
class TimedOut : public Error {
 public:
  using Error::Error;
};

/// The wake-up descriptor became readable while an answer was due. The answer is still on its way.
class Interrupted : public Error {
 public:
  using Error::Error;
};

/// The request does not fit into the daemon's receive buffer and was not sent. The link is fine.
class RequestTooLong : public std::length_error {
 public:
  using std::length_error::length_error;
};

}  // namespace master
