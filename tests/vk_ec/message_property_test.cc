#include <sys/socket.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/generators.h"
#include "tests/support/socket_pair.h"
#include "tests/support/wire_bytes.h"
#include "tests/vk_ec/any_message.h"
#include "vk_ec/message.h"
#include "vk_ec/transport.h"

namespace {

using ::vk_ec::MessageMgr;
using ::vk_ec::Transporter;
using Decoder = MessageMgr::MessageDecoder;

constexpr const char* kTooShort = "Not enough data read from network";

// In a vector of its own that has no byte to spare: the address sanitizer sees a read past its end.
std::vector<unsigned char> Buffer(const std::string& bytes) {
  return {bytes.begin(), bytes.end()};
}

// Reads one item as the protocol expects it; whether it is the same.
bool ComesBack(Decoder& decoder, const Item& item) {
  if (const auto* count = std::get_if<std::uint64_t>(&item.data)) {
    const MessageMgr::Header header = decoder.get_header();
    return header.name == item.name && header.count == *count && header.type == MessageMgr::MESS;
  }
  if (const auto* doubles = std::get_if<std::vector<double>>(&item.data)) {
    return any::Bits(decoder.get_header_and_data<double>(item.name, doubles->size())) ==
           any::Bits(*doubles);
  }
  if (const auto* ints = std::get_if<std::vector<int>>(&item.data)) {
    return decoder.get_header_and_data<int>(item.name) == *ints;
  }
  const MessageMgr::Header header = decoder.get_header();
  return header.name == item.name &&
         decoder.get_data<std::string>(header) == std::get<std::vector<std::string>>(item.data);
}

bool AllComeBack(Decoder& decoder, const std::vector<Item>& items) {
  for (const Item& item : items) {
    if (!ComesBack(decoder, item)) return false;
  }
  return true;
}

RC_GTEST_PROP(MessageProperty, WhatWasBuiltComesBackAndHasTheBytesOfTheFormat, ()) {
  const std::vector<Item> items = *any::MessageItems();
  SocketPair pair;
  const int large = 1 << 22;
  setsockopt(pair.ours.get(), SOL_SOCKET, SO_SNDBUF, &large, sizeof(large));
  Transporter sender(pair.ours.Release());
  Transporter echo(pair.peer.Release());

  MessageMgr out(sender);
  auto builder = out.createMessageBuilder();
  for (const Item& item : items) Add(builder, item);
  builder.send();
  std::vector<unsigned char> received;
  echo.recv(received);
  RC_ASSERT(received == Buffer(Encoded(items)));

  // Sent twice, so that the second has found the buffer of the first empty.
  auto again = out.createMessageBuilder();
  for (const Item& item : items) Add(again, item);
  again.send();
  MessageMgr in(echo);
  auto decoder = in.createMessageDecoder();
  RC_ASSERT(AllComeBack(decoder, items));
  decoder.finalize();
}

// Wherever a message is cut off: the reader notices, and has read nothing that is not there.
RC_GTEST_PROP(MessageProperty, CutMessageIsTooShortWhereverItIsCut, ()) {
  const std::vector<Item> items = *rc::gen::nonEmpty(any::MessageItems());
  const std::string whole = Encoded(items);
  for (int i = 0; i < 40; ++i) {
    std::vector<unsigned char> cut =
        Buffer(whole.substr(0, *rc::gen::inRange<std::size_t>(0, whole.size())));
    Decoder decoder(cut);
    std::string complaint;
    try {
      AllComeBack(decoder, items);
    } catch (const std::length_error& failure) {
      complaint = failure.what();
    }
    RC_ASSERT(complaint == kTooShort);
  }
}

// How many data elements a walk over the message yields; it ends in a complaint or at the end.
std::size_t Walk(std::vector<unsigned char>& bytes) {
  Decoder decoder(bytes);
  std::size_t elements = 0;
  try {
    while (true) {
      const MessageMgr::Header header = decoder.get_header();
      switch (header.type) {
        case MessageMgr::MESS:
          ++elements;
          break;
        case MessageMgr::DOUB:
          elements += decoder.get_data<double>(header).size();
          break;
        case MessageMgr::INTE:
          elements += decoder.get_data<int>(header).size();
          break;
        case MessageMgr::CSTR:
          elements += decoder.get_data<std::string>(header).size();
          break;
      }
    }
  } catch (const std::length_error& failure) {
    RC_ASSERT(failure.what() == std::string(kTooShort));
  } catch (const std::invalid_argument& failure) {
    RC_ASSERT(std::string(failure.what()).starts_with("Unknown type: "));
  }
  return elements;
}

RC_GTEST_PROP(MessageProperty, DamagedMessageEndsInAComplaintAndYieldsNoMoreThanItHolds, ()) {
  std::string bytes = Encoded(*any::MessageItems()) + *any::Bytes();
  for (int i = *rc::gen::inRange(0, 6); i > 0 && !bytes.empty(); --i) {
    bytes[*rc::gen::inRange<std::size_t>(0, bytes.size())] = *rc::gen::arbitrary<char>();
  }
  std::vector<unsigned char> buffer = Buffer(bytes);
  RC_ASSERT(Walk(buffer) <= bytes.size());
}

RC_GTEST_PROP(MessageProperty, BytesAfterTheLastItemAreRefused, ()) {
  const std::vector<Item> items = *any::MessageItems();
  const std::string whole = Encoded(items);
  const std::string more = *rc::gen::nonEmpty(any::Bytes());
  std::vector<unsigned char> buffer = Buffer(whole + more);
  Decoder decoder(buffer);
  RC_ASSERT(AllComeBack(decoder, items));
  std::string complaint;
  try {
    decoder.finalize();
  } catch (const std::length_error& failure) {
    complaint = failure.what();
  }
  RC_ASSERT(complaint == "Received message is longer than expected (received: " +
                             std::to_string(whole.size() + more.size()) +
                             " vs expected: " + std::to_string(whole.size()) + ")");
}

}  // namespace
