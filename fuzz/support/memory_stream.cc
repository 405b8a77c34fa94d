#include "fuzz/support/memory_stream.h"

#include <cstring>

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>

#include "vk_ec/stream_socket.h"

MemoryStream memory_stream;

// The same class as that of vk_ec/stream_socket.cc, which the linker leaves out when it
// finds these.
namespace vk_ec {

struct StreamSocket::Impl {};

StreamSocket::StreamSocket() = default;
StreamSocket::StreamSocket(int /*connected_descriptor*/) {}
StreamSocket::~StreamSocket() = default;

void StreamSocket::resolve(const std::string& /*host*/, unsigned /*port*/) {}
bool StreamSocket::connect_before(Clock::time_point /*give_up*/) {
  return true;
}
void StreamSocket::set_no_delay() {}
void StreamSocket::set_keep_alive() {}

void StreamSocket::write(Piece head, Piece body) {
  for (const Piece piece : {head, body}) {
    memory_stream.sent.append(reinterpret_cast<const char*>(piece.bytes), piece.length);
  }
}

void StreamSocket::read(unsigned char* bytes, std::size_t length) {
  std::string_view& incoming = memory_stream.incoming;
  if (length > incoming.size()) {
    incoming = {};
    throw boost::system::system_error(boost::asio::error::eof, "read");
  }
  if (length > 0) std::memcpy(bytes, incoming.data(), length);
  incoming.remove_prefix(length);
}

}  // namespace vk_ec
