// Messages of the simulator: whatever the bytes are, the decoder reads within them or throws.

#include "vk_ec/detail/message.h"

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

namespace {

using vk_ec::detail::MessageMgr;

void ReadItem(MessageMgr::MessageDecoder& decoder) {
  const MessageMgr::Header header = decoder.get_header();
  switch (header.type) {
    case MessageMgr::DOUB:
      decoder.get_data<double>(header);
      break;
    case MessageMgr::INTE:
      decoder.get_data<int>(header);
      break;
    case MessageMgr::CSTR:
      decoder.get_data<std::string>(header);
      break;
    default:
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<unsigned char> buffer(data, data + size);
  try {
    MessageMgr::MessageDecoder decoder(buffer);
    // An item takes 13 bytes at least, so this ends.
    while (true) ReadItem(decoder);
  } catch (const std::exception&) {
  }
  return 0;
}
