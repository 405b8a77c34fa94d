#include "vk_ec/message.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace vk_ec {
namespace {

constexpr std::size_t kLongestName = std::numeric_limits<unsigned char>::max();

// What follows the name in a header.
constexpr std::size_t kCountAndTag = sizeof(std::uint64_t) + sizeof(MessageMgr::ztyp);

// Copies `size` bytes and returns where the next ones go. The source of no bytes may be a null
// pointer, which memcpy() must not get.
unsigned char* put(unsigned char* target, const void* source, std::size_t size) {
  if (size > 0) std::memcpy(target, source, size);
  return target + size;
}

unsigned char* put_string(unsigned char* target, std::string_view value) {
  const std::uint64_t length = value.size();
  target = put(target, &length, sizeof(length));
  return put(target, value.data(), value.size());
}

std::string describe(const MessageMgr::Header& header) {
  return header.name + "-" + std::to_string(header.count) + "-" +
         MessageMgr::to_string(header.type);
}

[[noreturn]] void throw_unexpected(const MessageMgr::Header& header, const std::string& expected) {
  throw std::length_error("Incorrect header (received: " + describe(header) +
                          " vs expected: " + expected + ")");
}

}  // namespace

std::string MessageMgr::to_string(HeaderType type) {
  switch (type) {
    case MESS:
      return "MESS";
    case DOUB:
      return "DOUB";
    case INTE:
      return "INTE";
    case CSTR:
      return "CSTR";
  }
  throw std::invalid_argument("");
}

void MessageMgr::Header::check_expectation(std::string_view expected_name,
                                           std::uint64_t expected_count,
                                           HeaderType expected_type) const {
  if (name != expected_name || count != expected_count || type != expected_type) {
    throw_unexpected(*this, describe({std::string(expected_name), expected_count, expected_type}));
  }
}

void MessageMgr::Header::check_expectation(std::string_view expected_name,
                                           std::uint64_t expected_count) const {
  if (name != expected_name || count != expected_count) {
    throw_unexpected(*this,
                     std::string(expected_name) + "-" + std::to_string(expected_count) + "-...");
  }
}

void MessageMgr::Header::check_expectation_MESS(std::string_view expected_name,
                                                std::uint64_t expected_count) const {
  check_expectation(expected_name, expected_count, MESS);
}

void MessageMgr::Header::check_expectation_MESS(std::uint64_t expected_count) const {
  check_expectation(name, expected_count, MESS);
}

void MessageMgr::check_empty() const {
  if (!buffer_.empty()) {
    throw std::logic_error(
        "Cannot create a new out-going message as the previous message is still on going.");
  }
}

MessageMgr::MessageBuilder MessageMgr::createMessageBuilder() {
  check_empty();
  return MessageBuilder(*this);
}

// While it is being sent, the message is the one in progress. If that fails, it stays so.
void MessageMgr::resend(Buffer& message) {
  check_empty();
  buffer_.swap(message);
  transporter_.send(SendMessage(buffer_.data(), buffer_.size()));
  buffer_.swap(message);
}

MessageMgr::MessageDecoder MessageMgr::createMessageDecoder() {
  transporter_.recv(buffer_);
  return MessageDecoder(buffer_);
}

void MessageMgr::empty(Buffer& buffer) {
  buffer.clear();
  if (buffer.capacity() > kKeptCapacity) buffer.shrink_to_fit();
}

// The buffer to build in, unless a received message lies there.
MessageMgr::Buffer& MessageMgr::MessageBuilder::buffer() {
  if (manager_.built_ == 0) manager_.check_empty();
  return manager_.buffer_;
}

// Lengthens the message by `size` bytes and returns where they go. The buffer is resized ahead of
// the message, by as much as is built but at most kMostAhead: resize() clears what it adds, and to
// call it for every few bytes of a long message would take longer than to write them.
unsigned char* MessageMgr::MessageBuilder::grow(std::size_t size) {
  constexpr std::size_t kMostAhead = 4096;
  Buffer& room = buffer();
  std::size_t& built = manager_.built_;
  if (room.size() - built < size) room.resize(built + size + std::min(built, kMostAhead));
  return room.data() + std::exchange(built, built + size);
}

// Cuts off the room after the message, and returns the buffer.
MessageMgr::Buffer& MessageMgr::MessageBuilder::whole() {
  buffer().resize(manager_.built_);
  return manager_.buffer_;
}

// Appends a header and room for `data_size` bytes of data, and returns where the data go.
unsigned char* MessageMgr::MessageBuilder::begin_item(std::string_view name, std::uint64_t count,
                                                      const ztyp& tag, std::size_t data_size) {
  if (name.size() > kLongestName) {
    throw std::logic_error("Size of header name (" + std::to_string(name.size()) +
                           ") exceeds the allowed limit (" + std::to_string(kLongestName) + ").");
  }
  unsigned char* target = grow(1 + name.size() + kCountAndTag + data_size);
  *target++ = static_cast<unsigned char>(name.size());
  target = put(target, name.data(), name.size());
  target = put(target, &count, sizeof(count));
  return put(target, tag.data(), tag.size());
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_header(std::string_view name,
                                                                   std::uint64_t count,
                                                                   const ztyp& tag) {
  begin_item(name, count, tag, 0);
  return *this;
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_MESS_header(std::string_view name,
                                                                        std::uint64_t count) {
  return add_header(name, count, tMESS);
}

template <typename T>
MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data_impl(
    std::string_view name, const std::vector<T>& values) {
  const std::size_t size = values.size() * sizeof(T);
  put(begin_item(name, values.size(), ztyp_for<T>(), size), values.data(), size);
  return *this;
}

template <>
MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data_impl(
    std::string_view name, const std::vector<std::string>& values) {
  const std::size_t size = sizeof(std::uint64_t) * values.size() + get_total_size(values);
  unsigned char* target = begin_item(name, values.size(), tCSTR, size);
  for (const std::string& value : values) target = put_string(target, value);
  return *this;
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data(
    std::string_view name, const std::vector<double>& values) {
  return add_data_impl(name, values);
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data(std::string_view name,
                                                                 const std::vector<int>& values) {
  static_assert(sizeof(int) == 4, "integers travel as 32 bits");
  return add_data_impl(name, values);
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data(
    std::string_view name, const std::vector<std::string>& values) {
  return add_data_impl(name, values);
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_string(std::string_view name,
                                                                   std::string_view value) {
  put_string(begin_item(name, 1, tCSTR, sizeof(std::uint64_t) + value.size()), value);
  return *this;
}

std::uint64_t MessageMgr::MessageBuilder::get_total_size(const std::vector<std::string>& values) {
  std::uint64_t total = 0;
  for (const std::string& value : values) total += value.size();
  return total;
}

void MessageMgr::MessageBuilder::send() {
  Buffer& message = whole();
  manager_.transporter_.send(SendMessage(message.data(), message.size()));
  manager_.built_ = 0;
  empty(message);
}

MessageMgr::Buffer MessageMgr::MessageBuilder::release() {
  Buffer message = std::exchange(whole(), {});
  manager_.built_ = 0;
  return message;
}

MessageMgr::Header MessageMgr::MessageDecoder::get_header() {
  check_length(1);
  const auto name_length = take<unsigned char>();
  check_length(name_length + kCountAndTag);
  Header header;
  header.name = take_bytes(name_length);
  header.count = take<std::uint64_t>();
  header.type = decode_type(take<ztyp>());
  return header;
}

std::string MessageMgr::MessageDecoder::encode_header(std::string_view name, std::uint64_t count,
                                                      HeaderType type) {
  std::string encoded(1, static_cast<char>(name.size()));
  encoded += name;
  encoded.append(reinterpret_cast<const char*>(&count), sizeof(count));
  return encoded + to_string(type);
}

bool MessageMgr::MessageDecoder::skip_header(std::string_view encoded) {
  if (encoded.size() > remaining() ||
      std::memcmp(buffer_.data() + position_, encoded.data(), encoded.size()) != 0) {
    return false;
  }
  position_ += encoded.size();
  return true;
}

MessageMgr::HeaderType MessageMgr::MessageDecoder::decode_type(const ztyp& tag) {
  // Tags are compared as numbers, since a long answer has thousands of them.
  const auto number = [](const ztyp& letters) { return std::bit_cast<std::uint32_t>(letters); };
  if (number(tag) == number(tDOUB)) return DOUB;
  if (number(tag) == number(tCSTR)) return CSTR;
  if (number(tag) == number(tINTE)) return INTE;
  if (number(tag) == number(tMESS)) return MESS;
  throw std::invalid_argument("Unknown type: " + std::string(tag.data(), tag.size()));
}

void MessageMgr::MessageDecoder::check_length(std::uint64_t length) const {
  if (length > remaining()) throw std::length_error("Not enough data read from network");
}

// Compares quotients, since a hostile count times the width may not fit 64 bits.
void MessageMgr::MessageDecoder::check_count(std::uint64_t count, std::uint64_t least_width) const {
  if (count > remaining() / least_width) {
    throw std::length_error("Not enough data read from network");
  }
}

template <typename T>
void MessageMgr::MessageDecoder::append_numbers(std::uint64_t count, std::vector<T>& values) {
  check_count(count, sizeof(T));
  if (count == 0) return;
  const std::string_view bytes = take_bytes(count * sizeof(T));
  const std::size_t end = values.size();
  values.resize(end + count);
  std::memcpy(values.data() + end, bytes.data(), bytes.size());
}

template <>
void MessageMgr::MessageDecoder::append<double>(std::uint64_t count, std::vector<double>& values) {
  append_numbers(count, values);
}

template <>
void MessageMgr::MessageDecoder::append<int>(std::uint64_t count, std::vector<int>& values) {
  append_numbers(count, values);
}

template <>
void MessageMgr::MessageDecoder::append<std::string>(std::uint64_t count,
                                                     std::vector<std::string>& values) {
  check_count(count, sizeof(std::uint64_t));
  if (values.empty()) values.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) values.emplace_back(take_text());
}

std::string MessageMgr::MessageDecoder::get_string(const Header& header) {
  check_type(header, CSTR);
  return std::string(take_text());
}

// take() and take_bytes() rely on their callers to have checked the length.
template <typename T>
T MessageMgr::MessageDecoder::take() {
  T value{};
  std::memcpy(&value, buffer_.data() + position_, sizeof(value));
  position_ += sizeof(value);
  return value;
}

std::string_view MessageMgr::MessageDecoder::take_bytes(std::uint64_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(buffer_.data()) + position_, size);
  position_ += size;
  return bytes;
}

std::string_view MessageMgr::MessageDecoder::take_text() {
  check_length(sizeof(std::uint64_t));
  const auto length = take<std::uint64_t>();
  check_length(length);
  return take_bytes(length);
}

void MessageMgr::MessageDecoder::check_type(const Header& header, HeaderType expected_type) {
  // The blank before the last parenthesis is part of the established text.
  if (header.type != expected_type) {
    throw std::invalid_argument("Incorrect header (received: " + to_string(header.type) +
                                " vs expected: " + to_string(expected_type) + " )");
  }
}

void MessageMgr::MessageDecoder::finalize() {
  if (position_ != buffer_.size()) {
    throw std::length_error(
        "Received message is longer than expected (received: " + std::to_string(buffer_.size()) +
        " vs expected: " + std::to_string(position_) + ")");
  }
  empty(buffer_);
  position_ = end_ = 0;
}

}  // namespace vk_ec
