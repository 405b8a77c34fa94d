#include "tools/vkmaster/report/block.h"

#include <zlib.h>

#include <bit>
#include <cstdint>
#include <stdexcept>

namespace vkmaster {
namespace {

std::string Planes(const Columns& columns) {
  std::string planes;
  for (const std::vector<float>& column : columns) {
    const std::size_t begin = planes.size();
    const std::size_t rows = column.size();
    planes.resize(begin + 4 * rows);
    std::uint32_t last = 0;
    for (std::size_t row = 0; row < rows; ++row) {
      const auto bits = std::bit_cast<std::uint32_t>(column[row]);
      const std::uint32_t difference = bits - last;
      last = bits;
      for (std::size_t rank = 0; rank < 4; ++rank) {
        planes[begin + rank * rows + row] = static_cast<char>(difference >> 8 * rank & 0xff);
      }
    }
  }
  return planes;
}

std::string Compressed(const std::string& bytes) {
  uLongf size = compressBound(static_cast<uLong>(bytes.size()));
  std::string compressed(size, '\0');
  // More effort makes it hardly smaller, and takes three times as long where values are noisy.
  if (compress2(reinterpret_cast<Bytef*>(compressed.data()), &size,
                reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uLong>(bytes.size()),
                Z_BEST_SPEED) != Z_OK) {
    throw std::runtime_error("zlib cannot compress the values of the report");
  }
  compressed.resize(size);
  return compressed;
}

}  // namespace

std::string Base64(std::string_view bytes) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      const unsigned char byte =
          at + i < bytes.size() ? static_cast<unsigned char>(bytes[at + i]) : 0;
      bits = bits << 8 | byte;
    }
    for (std::size_t i = 0; i < 4; ++i) {
      const bool padding = at + i > bytes.size();
      text += padding ? '=' : kDigits[bits >> (18 - 6 * i) & 63];
    }
  }
  return text;
}

std::string Packed(const Columns& columns) {
  return Base64(Compressed(Planes(columns)));
}

}  // namespace vkmaster
