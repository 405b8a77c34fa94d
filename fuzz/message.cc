// Messages of the simulator: the decoder reads exactly the items that the bytes hold, whatever
// they are, and refuses the rest without reading past the end.

#include "vk_ec/message.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/promise.h"
#include "fuzz/support/wire.h"

namespace {

using vk_ec::MessageMgr;

constexpr std::string_view kTooShort = "Not enough data read from network";

// Takes the data of `header`, which the decoder has read as `values`, from the bytes.
template <class T>
void Compare(std::string_view& bytes, const wire::Header& header, const std::vector<T>& values) {
  PROMISE(values.size() == header.count);
  const std::size_t size = values.size() * sizeof(T);
  PROMISE(size <= bytes.size());
  PROMISE(size == 0 || std::memcmp(values.data(), bytes.data(), size) == 0);
  bytes.remove_prefix(size);
}

template <>
void Compare(std::string_view& bytes, const wire::Header& header,
             const std::vector<std::string>& values) {
  PROMISE(values.size() == header.count);
  for (const std::string& value : values) {
    std::string_view text;
    PROMISE(wire::TakeString(bytes, text));
    PROMISE(text == value);
  }
}

// Whether the bytes hold the data of `header`.
bool Holds(std::string_view bytes, const wire::Header& header) {
  if (header.tag == "DOUB") return header.count <= bytes.size() / sizeof(double);
  if (header.tag == "INTE") return header.count <= bytes.size() / sizeof(int);
  if (header.tag != "CSTR") return true;
  std::string_view text;
  for (std::uint64_t i = 0; i < header.count; ++i) {
    if (!wire::TakeString(bytes, text)) return false;
  }
  return true;
}

template <class T>
void ReadData(MessageMgr::MessageDecoder& decoder, const MessageMgr::Header& decoded,
              std::string_view& bytes, const wire::Header& header) {
  const bool there = Holds(bytes, header);
  try {
    const std::vector<T> values = decoder.get_data<T>(decoded);
    PROMISE(there);
    Compare(bytes, header, values);
  } catch (const std::length_error& error) {
    PROMISE(!there && error.what() == kTooShort);
    throw;
  }
}

// Why the bytes hold no header.
std::string Complaint(std::string_view bytes) {
  const std::size_t after_name = bytes.empty() ? 1 : 1U + static_cast<std::uint8_t>(bytes[0]);
  if (bytes.size() < after_name + 12) return std::string(kTooShort);
  return "Unknown type: " + std::string(bytes.substr(after_name + 8, 4));
}

void ReadItem(MessageMgr::MessageDecoder& decoder, std::string_view& bytes) {
  wire::Header header;
  std::string_view after = bytes;
  const bool there = wire::Take(after, header);
  MessageMgr::Header decoded;
  try {
    decoded = decoder.get_header();
  } catch (const std::exception& error) {
    // A text ends at its first zero byte, which may be one of the type's.
    PROMISE(!there && std::string_view(error.what()) == Complaint(bytes).c_str());
    throw;
  }
  PROMISE(there);
  bytes = after;
  PROMISE(decoded.name == header.name);
  PROMISE(decoded.count == header.count);
  PROMISE(MessageMgr::to_string(decoded.type) == header.tag);
  switch (decoded.type) {
    case MessageMgr::DOUB:
      return ReadData<double>(decoder, decoded, bytes, header);
    case MessageMgr::INTE:
      return ReadData<int>(decoder, decoded, bytes, header);
    case MessageMgr::CSTR:
      return ReadData<std::string>(decoder, decoded, bytes, header);
    case MessageMgr::MESS:
      break;
  }
}

// A message that was read to its end finishes; one with bytes left does not.
void Finish(MessageMgr::MessageDecoder& decoder, std::vector<unsigned char>& buffer,
            std::size_t read) {
  const std::size_t size = buffer.size();
  try {
    decoder.finalize();
    PROMISE(read == size && buffer.empty());
  } catch (const std::length_error& error) {
    PROMISE(read < size && buffer.size() == size);
    PROMISE(error.what() ==
            "Received message is longer than expected (received: " + std::to_string(size) +
                " vs expected: " + std::to_string(read) + ")");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<unsigned char> buffer(data, data + size);
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  MessageMgr::MessageDecoder decoder(buffer);
  try {
    while (!bytes.empty()) ReadItem(decoder, bytes);
  } catch (const std::length_error&) {
    return 0;
  } catch (const std::invalid_argument&) {
    return 0;
  }
  Finish(decoder, buffer, size);
  if (size == 0) return 0;

  buffer.assign(data, data + size);
  MessageMgr::MessageDecoder again(buffer);
  again.get_header();
  Finish(again, buffer, 13U + data[0]);
  return 0;
}
