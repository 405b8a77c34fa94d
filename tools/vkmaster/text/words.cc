#include "tools/vkmaster/text/words.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <system_error>
#include <utility>

#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool IsSeparator(const std::string& word) {
  return word == "then" || word == "," || word == ";";
}

// Splits one line. `begun_` tells a word that is empty so far, as after a quote, from no word.
class Splitter {
 public:
  Words Split(std::string_view line) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      const char c = line[i];
      if (c == '\'' || c == '"') {
        i = Quoted(line, i);
      } else if (c == '\\' && i + 1 < line.size()) {
        Add(line[++i]);
      } else if (c == '#' && !begun_) {
        break;
      } else if (IsBlank(c)) {
        End();
      } else if (c == ';') {
        End();
        words_.emplace_back(";");
      } else {
        Add(c);
      }
    }
    End();
    return std::move(words_);
  }

 private:
  std::size_t Quoted(std::string_view line, std::size_t open) {
    const char quote = line[open];
    begun_ = true;
    for (std::size_t i = open + 1; i < line.size(); ++i) {
      if (line[i] == quote) return i;
      if (line[i] == '\\' && quote == '"' && i + 1 < line.size()) ++i;
      Add(line[i]);
    }
    throw UsageError("A quote is not closed: " + std::string(line.substr(open)));
  }
  void Add(char c) {
    begun_ = true;
    word_ += c;
  }
  void End() {
    if (begun_) words_.push_back(word_);
    word_.clear();
    begun_ = false;
  }

  Words words_;
  std::string word_;
  bool begun_ = false;
};

}  // namespace

Words SplitWords(std::string_view line) {
  return Splitter().Split(line);
}

std::string Join(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

std::vector<Words> SplitCommands(const Words& words) {
  std::vector<Words> commands(1);
  for (const std::string& word : words) {
    if (IsSeparator(word)) {
      commands.emplace_back();
    } else {
      commands.back().push_back(word);
    }
  }
  std::erase_if(commands, [](const Words& command) { return command.empty(); });
  return commands;
}

bool Matches(std::string_view pattern, std::string_view name) {
  // Whenever the pattern after the last star does not fit, the star takes one character more.
  std::size_t p = 0;
  std::size_t n = 0;
  std::size_t star = std::string_view::npos;
  std::size_t taken = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      taken = n;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      n = ++taken;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool EqualIgnoringCase(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  });
}

double ParseNumber(const std::string& word, const std::string& what) {
  const char* begin = word.data();
  const char* end = word.data() + word.size();
  if (begin != end && *begin == '+') ++begin;
  double value = 0;
  const auto [stop, error] = std::from_chars(begin, end, value);
  if (error != std::errc() || stop != end || !std::isfinite(value)) {
    throw UsageError(what + " wanted, not '" + word + "'");
  }
  return value;
}

std::string Printable(std::string_view text) {
  std::string clean(text);
  for (char& c : clean) {
    if (std::iscntrl(static_cast<unsigned char>(c)) != 0) c = '?';
  }
  return clean;
}

}  // namespace vkmaster
