#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/getbuf.h"
#include "net/sendbuf.h"
#include "net/socket.h"
#include "relay/packing.h"
#include "tests/support/bytes.h"
#include "tests/support/generators.h"
#include "tests/support/guarded_bytes.h"
#include "tests/support/socket_pair.h"

namespace {

using Texts = std::vector<std::string>;
using Numbers = std::vector<double>;

// What was packed, without the frame's length and code.
std::string BytesOf(const sendbuf& reply) {
  if (reply.used() == 0) return {};
  SocketPair pair;
  Socket socket(pair.ours.Release());
  RC_ASSERT(reply.Send(&socket, 1) == 0);
  socket.Close();
  return ReadExactly(pair.peer.get(), 1 << 20).substr(8);
}

rc::Gen<Texts> AnyTexts() {
  return rc::gen::resize(25, rc::gen::container<Texts>(any::Bytes()));  // nested lists get long
}
std::string UpToZero(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

RC_GTEST_PROP(PackingProperty, PackedSizeIsWhatPackingTakes, ()) {
  sendbuf reply;
  const Texts texts = *AnyTexts();
  const Numbers series = *any::Doubles();
  std::int64_t size = 0;
  for (const std::string& text : texts) {
    reply.Pack(text);
    size += PackedSize(text);
    RC_ASSERT(reply.used() == size);
  }
  PackSeries(reply, series);
  size += PackedSize(series);
  RC_ASSERT(reply.used() == size);
  reply.Pack(7);
  RC_ASSERT(reply.used() == size + kPackedSize<int>);
  reply.Pack(7.0);
  RC_ASSERT(reply.used() == size + kPackedSize<int> + kPackedSize<double>);
}

RC_GTEST_PROP(PackingProperty, RoomThatWasMadeHoldsTheReplyWithoutGrowing, ()) {
  const Numbers series = *any::Doubles();
  const std::string text = *any::Bytes();
  sendbuf reply;
  MakeRoom(reply, PackedSize(series) + PackedSize(text) + 4);
  const auto capacity = reply.capacity();
  PackSeries(reply, series);
  reply.Pack(text);
  reply.Pack(0);
  RC_ASSERT(reply.capacity() == capacity);
  RC_ASSERT(capacity < reply.used() + 10 || capacity == 10);
}

RC_GTEST_PROP(PackingProperty, TextsNumbersAndGroupsComeBack, ()) {
  const Texts texts = *AnyTexts();
  const Numbers numbers = *any::Doubles();
  const auto text_groups = *rc::gen::resize(12, rc::gen::container<std::vector<Texts>>(AnyTexts()));
  const auto number_groups =
      *rc::gen::resize(12, rc::gen::container<std::vector<Numbers>>(any::Doubles()));
  sendbuf request;
  for (const std::string& text : texts) request.Pack(text);
  request.Pack(numbers.data(), static_cast<int>(numbers.size()));
  request.Pack(static_cast<int>(text_groups.size()));
  for (const Texts& group : text_groups) {
    request.Pack(static_cast<int>(group.size()));
    for (const std::string& text : group) request.Pack(text);
  }
  request.Pack(static_cast<int>(number_groups.size()));
  for (const Numbers& group : number_groups) PackSeries(request, group);

  const std::string body = BytesOf(request);
  const GuardedBytes bytes(body);
  getbuf fields(bytes.data(), static_cast<std::int64_t>(body.size()));
  Texts expected;
  for (const std::string& text : texts) expected.push_back(UpToZero(text));
  RC_ASSERT(UnPackTexts(fields, static_cast<int>(texts.size())) == expected);
  RC_ASSERT(any::Bits(UnPackNumbers(fields, static_cast<int>(numbers.size()))) ==
            any::Bits(numbers));
  const auto got_texts = UnPackGroups(fields, UnPackTexts);
  RC_ASSERT(got_texts.size() == text_groups.size());
  for (std::size_t i = 0; i < got_texts.size(); ++i) {
    Texts group;
    for (const std::string& text : text_groups[i]) group.push_back(UpToZero(text));
    RC_ASSERT(got_texts[i] == group);
  }
  const auto got_numbers = UnPackGroups(fields, UnPackNumbers);
  RC_ASSERT(got_numbers.size() == number_groups.size());
  for (std::size_t i = 0; i < got_numbers.size(); ++i) {
    RC_ASSERT(any::Bits(got_numbers[i]) == any::Bits(number_groups[i]));
  }
  RC_ASSERT(fields.remaining() == 0);
}

// Whatever count is announced: the elements, or an end of the buffer that is noticed.
RC_GTEST_PROP(PackingProperty, AnnouncedCountsNeverReachPastTheBuffer, (int n)) {
  const std::string body = *any::Bytes();
  const GuardedBytes bytes(body);
  const auto size = static_cast<std::int64_t>(body.size());
  const auto throws = [](const auto& read) {
    try {
      read();
      return false;
    } catch (const std::out_of_range&) {
      return true;
    }
  };
  getbuf numbers(bytes.data(), size);
  RC_ASSERT(throws([&] { UnPackNumbers(numbers, n); }) == (8LL * n > size));
  getbuf texts(bytes.data(), size);
  const bool failed = throws([&] { UnPackTexts(texts, n); });
  RC_ASSERT(failed || 4LL * n <= size);
  getbuf groups(bytes.data(), size);
  throws([&] { UnPackGroups(groups, UnPackTexts); });
}

}  // namespace
