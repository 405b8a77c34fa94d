#include "vk_ec/detail/message.h"

#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace vk_ec::detail {
namespace {

constexpr std::size_t kLongestName = std::numeric_limits<unsigned char>::max();

// What follows the name in a header.
constexpr std::size_t kCountAndTag = sizeof(std::uint64_t) + sizeof(MessageMgr::ztyp);

// Copies `size` bytes and returns where the next ones go. An empty list may have no address.
unsigned char* put(unsigned char* target, const void* source, std::size_t size) {
  if (size > 0) std::memcpy(target, source, size);
  return target + size;
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

void MessageMgr::Header::check_expectation(const std::string& expected_name,
                                           std::uint64_t expected_count,
                                           HeaderType expected_type) const {
  if (name != expected_name || count != expected_count || type != expected_type)
    throw_unexpected(*this, describe({expected_name, expected_count, expected_type}));
}

void MessageMgr::Header::check_expectation(const std::string& expected_name,
                                           std::uint64_t expected_count) const {
  if (name != expected_name || count != expected_count)
    throw_unexpected(*this, expected_name + "-" + std::to_string(expected_count) + "-...");
}

void MessageMgr::Header::check_expectation_MESS(const std::string& expected_name,
                                                std::uint64_t expected_count) const {
  check_expectation(expected_name, expected_count, MESS);
}

void MessageMgr::Header::check_expectation_MESS(std::uint64_t expected_count) const {
  check_expectation(name, expected_count, MESS);
}

MessageMgr::MessageBuilder MessageMgr::createMessageBuilder() {
  if (!buffer_.empty())
    throw std::logic_error(
        "Cannot create a new out-going message as the previous message is still on going.");
  return MessageBuilder(*this);
}

MessageMgr::MessageDecoder MessageMgr::createMessageDecoder() {
  transporter_.recv(buffer_);
  large_ = large_ || buffer_.size() > kept_capacity;
  return MessageDecoder(buffer_);
}

bool MessageMgr::take_large() {
  return std::exchange(large_, false);
}

void MessageMgr::empty(Buffer& buffer) {
  buffer.clear();
  if (buffer.capacity() > kept_capacity) buffer.shrink_to_fit();
}

// resize() keeps growing geometrically, so that a long message is not copied for every header.
unsigned char* MessageMgr::MessageBuilder::grow(std::size_t size) {
  Buffer& buffer = manager_.buffer_;
  const std::size_t end = buffer.size();
  buffer.resize(end + size);
  return buffer.data() + end;
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_header(const std::string& name,
                                                                   std::uint64_t count,
                                                                   const ztyp& tag) {
  if (name.size() > kLongestName)
    throw std::logic_error("Size of header name (" + std::to_string(name.size()) +
                           ") exceeds the allowed limit (" + std::to_string(kLongestName) + ").");
  unsigned char* target = grow(1 + name.size() + kCountAndTag);
  *target++ = static_cast<unsigned char>(name.size());
  target = put(target, name.data(), name.size());
  target = put(target, &count, sizeof(count));
  put(target, tag.data(), tag.size());
  return *this;
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_MESS_header(const std::string& name,
                                                                        std::uint64_t count) {
  return add_header(name, count, tMESS);
}

template <typename T>
MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data_impl(
    const std::string& name, const std::vector<T>& values) {
  add_header(name, values.size(), ztyp_for<T>());
  const std::size_t size = values.size() * sizeof(T);
  put(grow(size), values.data(), size);
  return *this;
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data(
    const std::string& name, const std::vector<double>& values) {
  return add_data_impl(name, values);
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data(const std::string& name,
                                                                 const std::vector<int>& values) {
  static_assert(sizeof(int) == 4, "integers travel as 32 bits");
  return add_data_impl(name, values);
}

MessageMgr::MessageBuilder& MessageMgr::MessageBuilder::add_data(
    const std::string& name, const std::vector<std::string>& values) {
  add_header(name, values.size(), tCSTR);
  unsigned char* target = grow(sizeof(std::uint64_t) * values.size() + get_total_size(values));
  for (const std::string& value : values) {
    const std::uint64_t length = value.size();
    target = put(target, &length, sizeof(length));
    target = put(target, value.data(), value.size());
  }
  return *this;
}

std::uint64_t MessageMgr::MessageBuilder::get_total_size(const std::vector<std::string>& values) {
  std::uint64_t total = 0;
  for (const std::string& value : values) total += value.size();
  return total;
}

void MessageMgr::MessageBuilder::send() {
  Buffer& buffer = manager_.buffer_;
  manager_.transporter_.send(SendMessage(buffer.data(), buffer.size()));
  empty(buffer);
}

MessageMgr::Header MessageMgr::MessageDecoder::get_header() {
  check_length(1);
  unsigned char name_length = 0;
  take(&name_length, sizeof(name_length));
  check_length(name_length + kCountAndTag);
  Header header;
  header.name = take_string(name_length);
  take(&header.count, sizeof(header.count));
  ztyp tag{};
  take(tag.data(), tag.size());
  header.type = decode_type(tag);
  return header;
}

MessageMgr::HeaderType MessageMgr::MessageDecoder::decode_type(const ztyp& tag) {
  if (tag == tMESS) return MESS;
  if (tag == tINTE) return INTE;
  if (tag == tDOUB) return DOUB;
  if (tag == tCSTR) return CSTR;
  throw std::invalid_argument("Unknown type: " + std::string(tag.data(), tag.size()));
}

void MessageMgr::MessageDecoder::check_length(std::uint64_t length) const {
  if (length > remaining()) throw std::length_error("Not enough data read from network");
}

// A count times a width may not fit 64 bits; a quotient always does.
void MessageMgr::MessageDecoder::check_count(std::uint64_t count, std::uint64_t least_width) const {
  if (count > remaining() / least_width)
    throw std::length_error("Not enough data read from network");
}

template <typename T>
std::vector<T> MessageMgr::MessageDecoder::get_data_impl(std::uint64_t count) {
  check_count(count, sizeof(T));
  std::vector<T> values(count);
  take(values.data(), count * sizeof(T));
  return values;
}

template <>
std::vector<double> MessageMgr::MessageDecoder::get_data<double>(std::uint64_t count) {
  return get_data_impl<double>(count);
}

template <>
std::vector<int> MessageMgr::MessageDecoder::get_data<int>(std::uint64_t count) {
  return get_data_impl<int>(count);
}

template <>
std::vector<std::string> MessageMgr::MessageDecoder::get_data<std::string>(std::uint64_t count) {
  check_count(count, sizeof(std::uint64_t));
  std::vector<std::string> values;
  values.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    check_length(sizeof(std::uint64_t));
    std::uint64_t length = 0;
    take(&length, sizeof(length));
    check_length(length);
    values.push_back(take_string(length));
  }
  return values;
}

void MessageMgr::MessageDecoder::take(void* target, std::uint64_t size) {
  if (size > 0) std::memcpy(target, buffer_.data() + position_, size);
  position_ += size;
}

std::string MessageMgr::MessageDecoder::take_string(std::uint64_t size) {
  const auto* begin = reinterpret_cast<const char*>(buffer_.data() + position_);
  position_ += size;
  return {begin, size};
}

void MessageMgr::MessageDecoder::check_type(const Header& header, HeaderType expected_type) {
  // The blank before the last parenthesis is part of the established text.
  if (header.type != expected_type)
    throw std::invalid_argument("Incorrect header (received: " + to_string(header.type) +
                                " vs expected: " + to_string(expected_type) + " )");
}

void MessageMgr::MessageDecoder::finalize() {
  if (position_ != buffer_.size())
    throw std::length_error(
        "Received message is longer than expected (received: " + std::to_string(buffer_.size()) +
        " vs expected: " + std::to_string(position_) + ")");
  empty(buffer_);
}

}  // namespace vk_ec::detail
