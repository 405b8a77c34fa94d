#include "tools/jobmillctl/serve/html.h"

#include <limits>
#include <optional>

#include <fmt/format.h>

namespace jobmillctl::serve {
namespace {

// The first character of a text that is not empty, and how many bytes it has. A byte that begins no
// character of UTF-8 is one without a code.
struct Character {
  std::optional<char32_t> code;
  std::size_t bytes = 1;
};

Character First(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return {first, 1};
  const std::size_t bytes = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (first < 0xc2 || first > 0xf4 || bytes > text.size()) return {};
  char32_t code = first & (0xffU >> (bytes + 1));
  for (std::size_t i = 1; i < bytes; ++i) {
    if ((byte(i) & 0xc0U) != 0x80) return {};
    code = code << 6 | (byte(i) & 0x3fU);
  }
  return {code, bytes};
}

// Controls, marks of direction, joiners and other formats without width, tags.
bool IsUnseen(char32_t code) {
  const auto within = [&](char32_t first, char32_t last) { return code >= first && code <= last; };
  return code < 0x20 || within(0x7f, 0xa0) || code == 0xad || code == 0x61c ||
         within(0x200b, 0x200f) || within(0x2028, 0x202f) || within(0x2060, 0x206f) ||
         code == 0xfeff || within(0xfff0, 0xfffb) || within(0xe0000, 0xe0fff);
}

std::string Written(const Character& character, std::string_view text) {
  if (!character.code) return fmt::format("\\x{:02x}", static_cast<unsigned char>(text[0]));
  const char32_t code = *character.code;
  switch (code) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&#39;";
    default:
      break;
  }
  const auto number = static_cast<unsigned>(code);
  if (IsUnseen(code)) {
    return number < 0x80 ? fmt::format("\\x{:02x}", number) : fmt::format("\\u{{{:x}}}", number);
  }
  return std::string(text);
}

}  // namespace

std::string Html(std::string_view text, std::size_t most) {
  std::string written;
  for (std::size_t count = 0; !text.empty(); ++count) {
    if (count == most) return written + "…";
    const Character first = First(text);
    written += Written(first, text.substr(0, first.bytes));
    text.remove_prefix(first.bytes);
  }
  return written;
}

std::string Html(std::string_view text) {
  return Html(text, std::numeric_limits<std::size_t>::max());
}

std::string QueryValue(std::string_view text) {
  constexpr std::string_view kPlain = "-._";
  std::string written;
  for (const char c : text) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       kPlain.find(c) != std::string_view::npos;
    written += plain ? std::string(1, c)
                     : fmt::format("%{:02X}", static_cast<unsigned>(static_cast<unsigned char>(c)));
  }
  return written;
}

}  // namespace jobmillctl::serve
