// What the engineer types as words, numbers, dates and steps. The other folders take values.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vkmaster {

using Words = std::vector<std::string>;

/// The words of a line. Blanks separate them; '...' and "..." keep blanks; a backslash keeps the
/// next character outside '...'; a word that begins with # begins a comment. A semicolon outside
/// quotes is a word of its own. Throws UsageError when a quote stays open.
Words SplitWords(std::string_view line);

/// A line of these words. Quotes that a word needs are not put back: the text is for people.
std::string Join(const Words& words);

/// Whether the word stands between two commands: "then", "," or ";".
bool IsSeparator(const std::string& word);

/// The commands of a list of words, between separators. Empty commands are left out.
std::vector<Words> SplitCommands(const Words& words);

/// True when `name` matches `pattern`, in which * stands for any characters and ? for one. Letter
/// case counts.
bool Matches(std::string_view pattern, std::string_view name);

/// True when `one` equals `other` but for the case of ASCII letters.
bool EqualIgnoringCase(std::string_view one, std::string_view other);

/// Those of `names` that somebody who typed `word` may have meant, as " (bhp, thp?)"; empty for
/// none.
std::string MaybeMeant(std::string_view word, const std::vector<std::string>& names);

/// The number that the whole of `word` spells. Throws UsageError saying that `what` was wanted.
double ParseNumber(const std::string& word, const std::string& what);

/// `text` without the blanks at its end.
std::string TrimRight(std::string text);

/// `text` with a '?' for every control character of ASCII or, in UTF-8, of Latin-1: a terminal
/// would act on it.
std::string Printable(std::string_view text);

}  // namespace vkmaster
