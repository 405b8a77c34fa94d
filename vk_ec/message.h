#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vk_ec/transport.h"

namespace vk_ec {

/// The messages of one connection. A message is a sequence of headers, each followed by its data:
///
///   1 byte    length of the name, 0 to 255
///   n bytes   name, ASCII
///   8 bytes   count of the elements that follow, unsigned
///   4 bytes   type tag
///   data      MESS: none; DOUB: 8 bytes each; INTE: 4 bytes each; CSTR: 8 bytes length, bytes
///
/// All numbers are little-endian. One buffer holds either the message being built or the message
/// being decoded, and is empty between messages. While it is not empty, a new message is refused.
/// After an exception in the middle of a message the buffer is never emptied: the two ends no
/// longer agree where the conversation stands, so that all further messages have to be refused.
///
/// The class serves either end of a connection. Not for use by two threads at once.
class MessageMgr {
 public:
  class MessageBuilder;
  class MessageDecoder;
  using Buffer = std::vector<unsigned char>;

  enum HeaderType : std::int32_t { MESS = 0, DOUB = 1, INTE = 2, CSTR = 3 };

  /// A type tag as it travels.
  using ztyp = std::array<char, 4>;
  static constexpr ztyp tMESS{'M', 'E', 'S', 'S'};
  static constexpr ztyp tDOUB{'D', 'O', 'U', 'B'};
  static constexpr ztyp tINTE{'I', 'N', 'T', 'E'};
  static constexpr ztyp tCSTR{'C', 'S', 'T', 'R'};

  /// The type of a list of T: `double`, `int` or `std::string`.
  template <typename T>
  static constexpr HeaderType headerType_for();

  /// The tag of a list of T: `double` or `int`.
  template <typename T>
  static constexpr ztyp ztyp_for();

  /// "MESS", "DOUB", "INTE" or "CSTR"; `std::invalid_argument` without a text for anything else.
  static std::string to_string(HeaderType type);

  /// One decoded header. Each check throws `std::length_error` "Incorrect header (received: ...
  /// vs expected: ...)" if the header is not the one that the protocol has at this place.
  struct Header {
    std::string name;
    std::uint64_t count = 0;
    HeaderType type = MESS;

    void check_expectation(std::string_view expected_name, std::uint64_t expected_count,
                           HeaderType expected_type) const;
    /// Accepts any type; the typed read of the data checks it.
    void check_expectation(std::string_view expected_name, std::uint64_t expected_count) const;
    void check_expectation_MESS(std::string_view expected_name, std::uint64_t expected_count) const;
    /// Accepts any name: the name of a message's first header says which message it is.
    void check_expectation_MESS(std::uint64_t expected_count) const;

    /// Whether this is the header that ends a message.
    bool is_end() const { return name == "END" && count == 0 && type == MESS; }
  };

  /// Keeps a reference to the transporter, which must outlive this object.
  explicit MessageMgr(Transporter& transporter) : transporter_(transporter) {}

  MessageMgr(const MessageMgr&) = delete;
  MessageMgr& operator=(const MessageMgr&) = delete;

  /// Begins an out-going message. `std::logic_error` if another message is in progress. The
  /// builder keeps a reference to this object; all its builders append to the same message.
  MessageBuilder createMessageBuilder();

  /// Sends a message that a builder has released. `message` stays the caller's and can be sent
  /// again. A message that could not be sent stays in progress instead, and leaves `message` empty.
  /// Throws as `createMessageBuilder` and `MessageBuilder::send`.
  void resend(Buffer& message);

  /// Blocks until a whole message has arrived; throws as `RecvMessage`. The decoder keeps a
  /// reference to this object. Until its `finalize` no further message can be sent or received.
  MessageDecoder createMessageDecoder();

 private:
  // The most memory that the buffer keeps between messages. It is enough for the status of 50,000
  // wells: to get that memory from the system for every answer would take longer than to fill it.
  // But one huge answer must not hold its memory for the rest of a run that lasts for days.
  static constexpr std::size_t kKeptCapacity = 8 << 20;
  static void empty(Buffer& buffer);
  void check_empty() const;

  Transporter& transporter_;
  Buffer buffer_;
  std::size_t built_ = 0;  // bytes of the message being built; the buffer has room after them
};

/// Appends to an out-going message. Nothing travels before `send`; a message that is not sent stays
/// in progress. Every call throws `std::logic_error` while a received message is in progress.
class MessageMgr::MessageBuilder {
 public:
  explicit MessageBuilder(MessageMgr& manager) : manager_(manager) {}

  /// `std::logic_error` for a name of 256 bytes or more, which leaves the message as it was.
  MessageBuilder& add_header(std::string_view name, std::uint64_t count, const ztyp& tag);
  MessageBuilder& add_MESS_header(std::string_view name, std::uint64_t count);

  /// A header that counts `values`, then the values. An empty list is the header alone.
  MessageBuilder& add_data(std::string_view name, const std::vector<double>& values);
  MessageBuilder& add_data(std::string_view name, const std::vector<int>& values);
  MessageBuilder& add_data(std::string_view name, const std::vector<std::string>& values);

  /// A header that counts one string, then that string.
  MessageBuilder& add_string(std::string_view name, std::string_view value);

  /// The sum of the strings' lengths, without their length fields.
  static std::uint64_t get_total_size(const std::vector<std::string>& values);

  /// Sends the message, so that the next one can begin. Blocks and throws as `SendMessage::send`;
  /// after a failure the message stays in progress.
  void send();

  /// Takes the message out, for `resend`, instead of sending it.
  Buffer release();

  /// Bytes so far.
  std::size_t size() const { return manager_.built_; }

 private:
  template <typename T>
  MessageBuilder& add_data_impl(std::string_view name, const std::vector<T>& values);
  unsigned char* begin_item(std::string_view name, std::uint64_t count, const ztyp& tag,
                            std::size_t data_size);
  unsigned char* grow(std::size_t size);
  Buffer& whole();
  Buffer& buffer();

  MessageMgr& manager_;
};

/// Walks a received message header by header. Every length and count of the peer is compared with
/// the bytes that are left before memory is taken for it. Every read throws `std::length_error`
/// "Not enough data read from network" when the message is too short, or is finished.
class MessageMgr::MessageDecoder {
 public:
  /// Keeps a reference to `message`, which must outlive the object.
  explicit MessageDecoder(std::vector<unsigned char>& message)
      : buffer_(message), end_(message.size()) {}
  MessageDecoder(MessageDecoder&& other) noexcept
      : buffer_(other.buffer_),
        position_(std::exchange(other.position_, 0)),
        end_(std::exchange(other.end_, 0)) {}
  MessageDecoder& operator=(MessageDecoder&&) = delete;

  /// The next header. `std::invalid_argument` for an unknown type tag.
  Header get_header();
  static HeaderType decode_type(const ztyp& tag);

  /// The bytes of a header, for `skip_header`.
  static std::string encode_header(std::string_view name, std::uint64_t count, HeaderType type);

  /// Passes over the next header if it is exactly the given one, else returns false. In the rows of
  /// a long answer that is cheaper than to decode every header and compare its parts.
  bool skip_header(std::string_view encoded);

  /// Throws unless `length` more bytes are there.
  void check_length(std::uint64_t length) const;

  /// The next `count` elements: `double`, `int` or `std::string`.
  template <typename T>
  std::vector<T> get_data(std::uint64_t count);

  /// The data of `header`. `std::invalid_argument` if they are not of type T.
  template <typename T>
  std::vector<T> get_data(const Header& header);

  /// The first string of `header`, which must announce one at least.
  std::string get_string(const Header& header);

  /// The next string, of a header that `skip_header` has passed over. It lies in the message.
  std::string_view get_text() { return take_text(); }

  /// Appends the next `count` elements to `values`. Rows that are read into one list take no memory
  /// of their own.
  template <typename T>
  void append(std::uint64_t count, std::vector<T>& values);

  /// Reads a header and returns its data, however many. Throws as `Header::check_expectation` does
  /// when the header has another name than `name` or another type than T.
  template <typename T>
  std::vector<T> get_header_and_data(std::string_view name);

  /// The same for a header that has to announce exactly `count` elements.
  template <typename T>
  std::vector<T> get_header_and_data(std::string_view name, std::uint64_t count);

  /// The bytes that have not been read yet; 0 when the message is finished.
  std::uint64_t remaining() const { return end_ - position_; }

  /// Finishes the message. `std::length_error` if bytes are left, or if another message has come
  /// since it was finished.
  void finalize();

 private:
  template <typename T>
  void append_numbers(std::uint64_t count, std::vector<T>& values);
  void check_count(std::uint64_t count, std::uint64_t least_width) const;
  template <typename T>
  T take();
  std::string_view take_bytes(std::uint64_t size);
  std::string_view take_text();
  static void check_type(const Header& header, HeaderType expected_type);

  std::vector<unsigned char>& buffer_;
  std::uint64_t position_ = 0;
  std::uint64_t end_;  // the message's size; 0, like the position, when it is finished
};

template <>
constexpr MessageMgr::HeaderType MessageMgr::headerType_for<double>() {
  return DOUB;
}
template <>
constexpr MessageMgr::HeaderType MessageMgr::headerType_for<int>() {
  return INTE;
}
template <>
constexpr MessageMgr::HeaderType MessageMgr::headerType_for<std::string>() {
  return CSTR;
}

template <>
constexpr MessageMgr::ztyp MessageMgr::ztyp_for<double>() {
  return tDOUB;
}
template <>
constexpr MessageMgr::ztyp MessageMgr::ztyp_for<int>() {
  return tINTE;
}

template <>
void MessageMgr::MessageDecoder::append<double>(std::uint64_t count, std::vector<double>& values);
template <>
void MessageMgr::MessageDecoder::append<int>(std::uint64_t count, std::vector<int>& values);
template <>
void MessageMgr::MessageDecoder::append<std::string>(std::uint64_t count,
                                                     std::vector<std::string>& values);

template <typename T>
std::vector<T> MessageMgr::MessageDecoder::get_data(std::uint64_t count) {
  std::vector<T> values;
  append(count, values);
  return values;
}

template <typename T>
std::vector<T> MessageMgr::MessageDecoder::get_data(const Header& header) {
  check_type(header, headerType_for<T>());
  return get_data<T>(header.count);
}

template <typename T>
std::vector<T> MessageMgr::MessageDecoder::get_header_and_data(std::string_view name) {
  const Header header = get_header();
  header.check_expectation(name, header.count, headerType_for<T>());
  return get_data<T>(header.count);
}

template <typename T>
std::vector<T> MessageMgr::MessageDecoder::get_header_and_data(std::string_view name,
                                                               std::uint64_t count) {
  const Header header = get_header();
  header.check_expectation(name, count, headerType_for<T>());
  return get_data<T>(count);
}

}  // namespace vk_ec
