#include "vk_ec/transport.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <thread>

namespace vk_ec {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

static_assert(std::endian::native == std::endian::little, "numbers travel as they are in memory");

constexpr milliseconds kPace{500};

template <std::size_t N>
StreamSocket::Piece piece_of(const std::array<std::uint64_t, N>& numbers) {
  return {reinterpret_cast<const unsigned char*>(numbers.data()), sizeof(numbers)};
}

template <std::size_t N>
std::array<std::uint64_t, N> read_numbers(StreamSocket& socket) {
  std::array<std::uint64_t, N> numbers{};
  std::array<unsigned char, sizeof(numbers)> bytes{};
  socket.read(bytes.data(), bytes.size());
  std::memcpy(numbers.data(), bytes.data(), bytes.size());
  return numbers;
}

}  // namespace

// Each length leaves in one call with the chunk that it announces: in a segment of its own the
// length would cost a small exchange a third of its time.
void SendMessage::send(StreamSocket& socket) const {
  std::uint64_t chunk = std::min(size_, kChunkSize);
  const std::array<std::uint64_t, 2> initial{size_, chunk};
  socket.write(piece_of(initial), {bytes_, chunk});
  for (std::uint64_t offset = chunk; offset < size_; offset += chunk) {
    chunk = std::min(size_ - offset, kChunkSize);
    const std::array<std::uint64_t, 1> header{chunk};
    socket.write(piece_of(header), {bytes_ + offset, chunk});
  }
}

void SendMessage::send_initial_header(std::uint64_t total, std::uint64_t first_chunk_length,
                                      StreamSocket& socket) {
  const std::array<std::uint64_t, 2> initial{total, first_chunk_length};
  socket.write(piece_of(initial));
}

void SendMessage::send_header(std::uint64_t chunk_length, StreamSocket& socket) {
  const std::array<std::uint64_t, 1> header{chunk_length};
  socket.write(piece_of(header));
}

void SendMessage::send_buffer(const unsigned char* bytes, std::uint64_t length,
                              StreamSocket& socket) {
  socket.write({bytes, length});
}

RecvMessage::RecvMessage(StreamSocket& socket, std::vector<unsigned char>& buffer)
    : buffer_(buffer) {
  if (!buffer_.empty()) {
    throw std::logic_error("Cannot receive a message as the previous message is still on going.");
  }
  buffer_.reserve(1);  // for the resize(1) below, which must not fail
  auto [total, chunk] = read_initial_header(socket);
  try {
    buffer_.resize(total <= kTrustedTotal ? total : SendMessage::kChunkSize);
  } catch (...) {
    buffer_.resize(1);  // not empty: the next read would begin in the middle of this message
    throw;
  }
  std::uint64_t offset = 0;
  while (offset < total) {
    if (chunk > total - offset) {
      throw std::length_error("Incorrect length in header (received: " + std::to_string(chunk) +
                              " vs allowed:" + std::to_string(total - offset) + ")");
    }
    receive_chunk(offset, chunk, total, socket);
    offset += chunk;
    if (offset >= total) return;
    chunk = read_header(socket);
    if (chunk == 0) throw std::length_error("Incorrect zero chunk length received.");
  }
}

void RecvMessage::receive_chunk(std::uint64_t offset, std::uint64_t length, std::uint64_t total,
                                StreamSocket& socket) {
  const std::uint64_t end = offset + length;
  while (offset < end) {
    if (offset == buffer_.size()) {
      buffer_.resize(std::min<std::uint64_t>(total, 2 * buffer_.size()));
    }
    const std::uint64_t part = std::min<std::uint64_t>(end, buffer_.size()) - offset;
    read_payload(buffer_.data() + offset, part, socket);
    offset += part;
  }
}

std::pair<std::uint64_t, std::uint64_t> RecvMessage::read_initial_header(StreamSocket& socket) {
  const auto [total, first_chunk_length] = read_numbers<2>(socket);
  return {total, first_chunk_length};
}

std::uint64_t RecvMessage::read_header(StreamSocket& socket) {
  return read_numbers<1>(socket)[0];
}

void RecvMessage::read_payload(unsigned char* bytes, std::uint64_t length, StreamSocket& socket) {
  receive_buffer(bytes, length, socket);
}

void RecvMessage::receive_buffer(unsigned char* bytes, std::uint64_t length, StreamSocket& socket) {
  socket.read(bytes, length);
}

Transporter::Transporter(int connected_descriptor) : socket_(connected_descriptor) {
  try {
    socket_.set_no_delay();
  } catch (const std::exception&) {
    // Not a TCP socket, so there is no delay either.
  }
}

void ClientTransporter::connect(const std::string& host, unsigned port, unsigned timeout) {
  using Clock = StreamSocket::Clock;
  socket().resolve(host, port);
  const auto start = Clock::now();
  const auto give_up = start + seconds(timeout) + seconds(1);
  auto last = start;
  while (!socket().connect_before(give_up)) {
    const auto now = Clock::now();
    if (std::chrono::duration_cast<seconds>(now - start).count() > timeout) {
      throw std::runtime_error("Connection timed out.");
    }
    const auto since_last = std::chrono::duration_cast<milliseconds>(now - last);
    if (since_last < kPace) std::this_thread::sleep_for(kPace - since_last);
    last = Clock::now();
  }
  socket().set_no_delay();
  socket().set_keep_alive();
}

}  // namespace vk_ec
