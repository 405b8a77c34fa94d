#include "tests/hostile/notation.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "tests/support/wire_bytes.h"

namespace {

template <class T>
std::string Image(T value) {
  std::string bytes(sizeof(value), '\0');
  std::memcpy(bytes.data(), &value, sizeof(value));
  return bytes;
}

std::string Prefixed(const std::string& bytes) {
  return Image(static_cast<std::uint32_t>(bytes.size())) + bytes;
}

std::string Header(const std::string& name, std::uint64_t count, const std::string& tag) {
  return Image(static_cast<std::uint8_t>(name.size())) + name + Image(count) + tag;
}

std::string Chunked(std::uint64_t size, const std::string& message) {
  std::string bytes = Image<std::uint64_t>(message.size());
  std::uint64_t offset = 0;
  do {
    const std::uint64_t chunk = std::min<std::uint64_t>(size, message.size() - offset);
    bytes += Image(chunk) + message.substr(offset, chunk);
    offset += chunk;
  } while (offset < message.size());
  return bytes;
}

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  std::string Whole() {
    std::string bytes = Items();
    if (!AtEnd()) Fail("unexpected character");
    return bytes;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw std::invalid_argument(what + " at " + std::to_string(at_) +
                                " of: " + std::string(text_.substr(0, 300)));
  }

  void SkipBlanks() {
    while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_])) != 0) ++at_;
  }
  bool AtEnd() {
    SkipBlanks();
    return at_ == text_.size();
  }
  bool Take(char wanted) {
    SkipBlanks();
    if (at_ == text_.size() || text_[at_] != wanted) return false;
    ++at_;
    return true;
  }
  void Expect(char wanted) {
    if (!Take(wanted)) Fail(std::string("no '") + wanted + "'");
  }

  // Up to the comma or parenthesis that ends a plain argument.
  std::string Word() {
    SkipBlanks();
    const std::size_t begin = at_;
    while (at_ < text_.size() && text_[at_] != ',' && text_[at_] != ')') ++at_;
    std::size_t end = at_;
    while (end > begin && std::isspace(static_cast<unsigned char>(text_[end - 1])) != 0) --end;
    return std::string(text_.substr(begin, end - begin));
  }

  template <class Convert>
  auto Number(Convert convert) {
    const std::string word = Word();
    char* end = nullptr;
    const auto value = convert(word.c_str(), &end);
    if (word.empty() || *end != '\0') Fail("not a number: '" + word + "'");
    return value;
  }
  std::int64_t Signed() {
    return Number([](const char* text, char** end) { return std::strtoll(text, end, 10); });
  }
  std::uint64_t Unsigned() {
    return Number([](const char* text, char** end) { return std::strtoull(text, end, 10); });
  }
  double Real() { return Number(std::strtod); }

  std::string Items() {
    std::string bytes;
    while (!AtEnd() && text_[at_] != ')' && text_[at_] != ',') bytes += Item();
    return bytes;
  }

  std::string Item() {
    if (Take('\'')) return Quoted();
    if (Take('#')) return Take('*') ? Repeated(index_) : SixDigits(index_);
    const std::size_t begin = at_;
    while (at_ < text_.size() && std::isalnum(static_cast<unsigned char>(text_[at_])) != 0) ++at_;
    const std::string word(text_.substr(begin, at_ - begin));
    if (word.empty()) Fail("unexpected character");
    if (Take('*')) return Repeated(std::stoull(word));
    if (at_ < text_.size() && text_[at_] == '(') return Call(word);
    return wire::Bytes(word);
  }

  std::string Quoted() {
    std::string bytes;
    while (true) {
      const std::size_t end = text_.find('\'', at_);
      if (end == std::string_view::npos) Fail("quote without its end");
      bytes += text_.substr(at_, end - at_);
      at_ = end + 1;
      if (at_ == text_.size() || text_[at_] != '\'') return bytes;
      bytes += '\'';
      ++at_;
    }
  }

  static std::string SixDigits(std::uint64_t number) {
    const std::string digits = std::to_string(number);
    return std::string(digits.size() < 6 ? 6 - digits.size() : 0, '0') + digits;
  }

  // What stands behind the comma, once for each number below `times`.
  std::string Numbered(std::uint64_t times) {
    Expect(',');
    const std::size_t begin = at_;
    std::string bytes;
    for (index_ = 0; index_ < times; ++index_) {
      at_ = begin;
      bytes += Items();
    }
    return bytes;
  }

  std::string Repeated(std::uint64_t times) {
    Expect('(');
    const std::string once = Items();
    Expect(')');
    if (once.size() == 1) return std::string(times, once[0]);
    std::string bytes;
    bytes.reserve(times * once.size());
    for (std::uint64_t i = 0; i < times; ++i) bytes += once;
    return bytes;
  }

  std::string Call(const std::string& function) {
    Expect('(');
    std::string bytes = Result(function);
    Expect(')');
    return bytes;
  }

  std::string Rest() { return Take(',') ? Items() : std::string(); }

  std::string Result(const std::string& function) {
    if (function == "i") return Image(static_cast<std::uint32_t>(Signed()));
    if (function == "u64") return Image(Unsigned());
    if (function == "d") return Image(Real());
    if (function == "each") return Numbered(Unsigned());
    if (function == "text") return Prefixed(Items());
    if (function == "long") {
      const std::string bytes = Items();
      return Image<std::uint64_t>(bytes.size()) + bytes;
    }
    if (function == "ask" || function == "reply") {
      std::string body = Image(static_cast<std::uint32_t>(Signed()));
      body += Rest();
      if (function == "reply") body += Image<std::uint32_t>(0);
      return Prefixed(body);
    }
    if (function == "message") return wire::Framed(Items());
    if (function == "chunks") {
      const std::uint64_t size = Unsigned();
      return Chunked(size, Rest());
    }
    if (function == "query" || function == "set") {
      const std::string kind = Word();
      const std::string first = function == "query" ? "QUERY" : "SET";
      return wire::Framed(wire::Mess(first) + wire::Mess(kind) + Rest() + wire::Mess("END"));
    }
    return HeaderResult(function);
  }

  std::string HeaderResult(const std::string& function) {
    const std::string name = Word();
    if (function == "mess") return wire::Mess(name);
    if (function == "head") {
      Expect(',');
      const std::uint64_t count = Unsigned();
      Expect(',');
      return Header(name, count, Word());
    }
    if (function == "cstr") {
      std::vector<std::string> values;
      while (Take(',')) values.push_back(Items());
      return wire::Cstr(name, values);
    }
    if (function == "doub") {
      std::vector<double> values;
      while (Take(',')) values.push_back(Real());
      return wire::Doub(name, values);
    }
    if (function == "inte") {
      std::vector<int> values;
      while (Take(',')) values.push_back(static_cast<int>(Signed()));
      return wire::Inte(name, values);
    }
    Fail("unknown function " + function);
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::uint64_t index_ = 0;
};

}  // namespace

std::string Notated(std::string_view text) {
  return Reader(text).Whole();
}

std::string Readable(std::string_view bytes) {
  constexpr std::size_t kShown = 1500;
  std::string readable;
  const auto add = [&readable](std::string_view part) {
    for (const char c : part) {
      const auto byte = static_cast<unsigned char>(c);
      if (c == '\n') {
        readable += "\\n\n";
      } else if (byte < 0x20 || byte > 0x7e) {
        constexpr std::string_view kDigits = "0123456789abcdef";
        readable += {'\\', 'x', kDigits[byte / 16], kDigits[byte % 16]};
      } else {
        readable += c;
      }
    }
  };
  if (bytes.size() <= 2 * kShown) {
    add(bytes);
  } else {
    add(bytes.substr(0, kShown));
    readable += "\n... " + std::to_string(bytes.size() - 2 * kShown) + " more bytes ...\n";
    add(bytes.substr(bytes.size() - kShown));
  }
  return readable;
}
