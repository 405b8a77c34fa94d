#include "tests/support/bytes.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "tests/support/wire_bytes.h"

namespace {

// Reads one text in the notation.
class Reader {
 public:
  // What is in the parentheses after a word, as bytes.
  struct Function {
    const char* word;
    std::string (*read)(Reader& in);
  };
  static const std::vector<Function>& Functions();

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
    return Digits(word);
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

  std::string Digits(const std::string& word) const {
    std::string bytes;
    for (std::size_t i = 0; i < word.size(); i += 2) {
      char* end = nullptr;
      const std::string two = word.substr(i, 2);
      bytes += static_cast<char>(std::strtol(two.c_str(), &end, 16));
      if (two.size() != 2 || end != two.c_str() + 2) Fail("no hexadecimal byte: '" + two + "'");
    }
    return bytes;
  }

  static std::string SixDigits(std::uint64_t number) {
    const std::string digits = std::to_string(number);
    return std::string(digits.size() < 6 ? 6 - digits.size() : 0, '0') + digits;
  }

  // What follows the comma, once for each number below `times`.
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
    for (const Function& one : Functions()) {
      if (function != one.word) continue;
      std::string bytes = one.read(*this);
      Expect(')');
      return bytes;
    }
    Fail("unknown function " + function);
  }

  std::string Rest() { return Take(',') ? Items() : std::string(); }

  std::string Code() {
    const std::string code = Image(static_cast<std::uint32_t>(Signed()));
    return code + Rest();
  }

  std::string Texts(const std::string& name) {
    std::vector<std::string> values;
    while (Take(',')) values.push_back(Items());
    return wire::Cstr(name, values);
  }

  template <class T, class Read>
  std::vector<T> Numbers(Read read) {
    std::vector<T> values;
    while (Take(',')) values.push_back(static_cast<T>(read()));
    return values;
  }

  std::string HeaderOf(const std::string& name) {
    Expect(',');
    const std::uint64_t count = Unsigned();
    Expect(',');
    return wire::Head(name, count, Word());
  }

  std::string Chunked() {
    const std::uint64_t size = Unsigned();
    return wire::Framed(Rest(), size);
  }

  std::string Exchange(const char* first) {
    const std::string kind = wire::Mess(Word());
    return wire::Framed(wire::Mess(first) + kind + Rest() + wire::Mess("END"));
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::uint64_t index_ = 0;
};

// A word of the notation is one row here and one in the table of tests/hostile/README.md.
const std::vector<Reader::Function>& Reader::Functions() {
  static const std::vector<Function> functions = {
      {"i", [](Reader& in) { return Image(static_cast<std::uint32_t>(in.Signed())); }},
      {"u64", [](Reader& in) { return Image(in.Unsigned()); }},
      {"d", [](Reader& in) { return Image(in.Real()); }},
      {"each", [](Reader& in) { return in.Numbered(in.Unsigned()); }},
      {"text", [](Reader& in) { return PackedText(in.Items()); }},
      {"long", [](Reader& in) { return wire::LongText(in.Items()); }},
      {"ask", [](Reader& in) { return Frame(in.Code()); }},
      {"reply", [](Reader& in) { return Frame(in.Code() + Image(0)); }},
      {"head", [](Reader& in) { return in.HeaderOf(in.Word()); }},
      {"mess", [](Reader& in) { return wire::Mess(in.Word()); }},
      {"cstr", [](Reader& in) { return in.Texts(in.Word()); }},
      {"doub",
       [](Reader& in) {
         const std::string name = in.Word();
         return wire::Doub(name, in.Numbers<double>([&in] { return in.Real(); }));
       }},
      {"inte",
       [](Reader& in) {
         const std::string name = in.Word();
         return wire::Inte(name, in.Numbers<int>([&in] { return in.Signed(); }));
       }},
      {"message", [](Reader& in) { return wire::Framed(in.Items()); }},
      {"chunks", [](Reader& in) { return in.Chunked(); }},
      {"query", [](Reader& in) { return in.Exchange("QUERY"); }},
      {"set", [](Reader& in) { return in.Exchange("SET"); }},
  };
  return functions;
}

}  // namespace

std::string Bytes(std::string_view notation) {
  return Reader(notation).Whole();
}

std::vector<std::string> NotationWords() {
  std::vector<std::string> words;
  for (const Reader::Function& one : Reader::Functions()) words.emplace_back(one.word);
  return words;
}

std::string Hex(std::string_view bytes) {
  std::string hex;
  for (const char c : bytes) {
    char pair[4];
    std::snprintf(pair, sizeof(pair), "%02x ",
                  static_cast<unsigned>(static_cast<unsigned char>(c)));
    hex += pair;
  }
  if (!hex.empty()) hex.pop_back();
  return hex;
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
