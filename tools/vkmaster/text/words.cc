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

constexpr int kMostMeant = 8;

char Lower(char c) {
  return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

// How many letters have to be put in, left out, changed or swapped with the next one to make
// `other` of `one`. Letter case does not count.
std::size_t Distance(std::string_view one, std::string_view other) {
  std::vector<std::vector<std::size_t>> best(one.size() + 1,
                                             std::vector<std::size_t>(other.size() + 1));
  for (std::size_t i = 0; i <= one.size(); ++i) {
    for (std::size_t k = 0; k <= other.size(); ++k) {
      best[i][k] = i + k;
      if (i == 0 || k == 0) continue;
      const bool same = Lower(one[i - 1]) == Lower(other[k - 1]);
      best[i][k] =
          std::min({best[i - 1][k] + 1, best[i][k - 1] + 1, best[i - 1][k - 1] + (same ? 0 : 1)});
      const bool swapped = i > 1 && k > 1 && Lower(one[i - 2]) == Lower(other[k - 1]) &&
                           Lower(one[i - 1]) == Lower(other[k - 2]);
      if (swapped) best[i][k] = std::min(best[i][k], best[i - 2][k - 2] + 1);
    }
  }
  return best[one.size()][other.size()];
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
  // Editors on Windows put it at the beginning of a file.
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (line.starts_with(kByteOrderMark)) line.remove_prefix(kByteOrderMark.size());
  return Splitter().Split(line);
}

std::string Join(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

bool IsSeparator(const std::string& word) {
  return word == "then" || word == "," || word == ";";
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
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](char a, char b) { return Lower(a) == Lower(b); });
}

std::string MaybeMeant(std::string_view word, const std::vector<std::string>& names) {
  const auto begins = [&](const std::string& name) {
    return !word.empty() && name.size() > word.size() &&
           EqualIgnoringCase(name.substr(0, word.size()), word);
  };
  std::string meant;
  int found = 0;
  for (const std::string& name : names) {
    // A third of the letters may be wrong, but no fewer than one and no more than three.
    const std::size_t allowed = std::clamp<std::size_t>(word.size() / 3, 1, 3);
    if (!begins(name) && (word.size() < 2 || Distance(word, name) > allowed)) continue;
    if (++found > kMostMeant) return meant + ", ...?)";
    meant += (meant.empty() ? " (" : ", ") + name;
  }
  return meant.empty() ? "" : meant + "?)";
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

std::string TrimRight(std::string text) {
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

std::string Printable(std::string_view text) {
  std::string clean(text);
  for (std::size_t i = 0; i < clean.size(); ++i) {
    if (std::iscntrl(static_cast<unsigned char>(clean[i])) != 0) clean[i] = '?';
    // U+0080 to U+009F, which a terminal obeys, too.
    const auto next = static_cast<unsigned char>(i + 1 < clean.size() ? clean[i + 1] : 0);
    if (clean[i] == '\xC2' && next >= 0x80 && next < 0xA0) clean.replace(i, 2, "?");
  }
  return clean;
}

}  // namespace vkmaster
