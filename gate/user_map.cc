#include "gate/user_map.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace gate {
namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr std::string_view kAnybody = "*@";

// Takes the next field off the beginning of a line. Quotes may stand around the whole field or,
// after a colon, around its name. Throws a text without the place.
std::string TakeField(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  std::string field;
  bool quoted = false;
  std::size_t i = 0;
  for (; i < line.size() && (quoted || kBlanks.find(line[i]) == std::string_view::npos); ++i) {
    if (line[i] == '"') {
      quoted = !quoted;
    } else {
      field += line[i];
    }
  }
  if (quoted) throw std::runtime_error("a quote is not closed");
  line.remove_prefix(i);
  return field;
}

CertificateName NameIn(const std::string& field) {
  const std::size_t colon = field.find(':');
  const auto kind = KindOf(field.substr(0, colon == std::string::npos ? 0 : colon));
  if (!kind) throw std::runtime_error("a name begins with upn:, email: or cn:");
  CertificateName name{*kind, field.substr(colon + 1)};
  if (!IsCleanName(name.text)) throw std::runtime_error("that cannot be a name");
  const std::size_t star = name.text.find('*');
  if (star != std::string::npos &&
      (!name.text.starts_with(kAnybody) || name.text.size() == kAnybody.size() ||
       name.text.find('*', 1) != std::string::npos || name.kind == NameKind::kCommonName)) {
    throw std::runtime_error("'*' stands only in front of @ and a domain, of a upn or an email");
  }
  return name;
}

// What `name` has in the place of the star of "*@domain"; nothing when it is of another domain.
std::optional<std::string_view> InPlaceOfStar(std::string_view pattern, std::string_view name) {
  const std::string_view domain = pattern.substr(1);  // with its @
  const std::size_t at = name.rfind('@');
  if (at == std::string_view::npos || at == 0 || !SameName(domain, name.substr(at))) {
    return std::nullopt;
  }
  return name.substr(0, at);
}

}  // namespace

UserMap UserMap::Parse(std::string_view text, const std::string& file) {
  UserMap map;
  for (int number = 1; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    if (line.empty() || line[0] == '#') continue;
    try {
      Entry entry{NameIn(TakeField(line)), TakeField(line)};
      if (!IsCleanName(entry.user)) throw std::runtime_error("the Windows user is missing");
      if (line.find_first_not_of(kBlanks) != std::string_view::npos) {
        throw std::runtime_error("a line has a name and a user; text with blanks needs quotes");
      }
      const auto stars = std::count(entry.user.begin(), entry.user.end(), '*');
      if (stars > (entry.name.text[0] == '*' ? 1 : 0)) {
        throw std::runtime_error("'*' in the user stands for that of the name, once");
      }
      map.entries_.push_back(std::move(entry));
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(file + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  return map;
}

UserMap UserMap::Load(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::string text;
  char piece[4096];
  while (in.read(piece, sizeof(piece)) || in.gcount() > 0) {
    text.append(piece, static_cast<std::size_t>(in.gcount()));
  }
  if (!in.eof()) throw std::runtime_error(file + ": cannot be read");
  return Parse(text, file);
}

bool UserMap::Matches(const Entry& entry, const CertificateName& name, std::string_view user) {
  if (entry.name.kind != name.kind) return false;
  if (entry.name.text[0] != '*') {
    return SameName(entry.name.text, name.text) && SameName(entry.user, user);
  }
  const auto person = InPlaceOfStar(entry.name.text, name.text);
  if (!person) return false;
  std::string meant = entry.user;
  const std::size_t star = meant.find('*');
  if (star != std::string::npos) meant.replace(star, 1, *person);
  return SameName(meant, user);
}

bool UserMap::Allows(const CertificateName& name, std::string_view user) const {
  return std::any_of(entries_.begin(), entries_.end(),
                     [&](const Entry& entry) { return Matches(entry, name, user); });
}

std::optional<CertificateName> ProofOf(std::string_view claim,
                                       const std::vector<CertificateName>& names,
                                       const UserMap& map) {
  if (!IsCleanName(claim) || claim == "*") return std::nullopt;
  for (const CertificateName& name : names) {
    if (SameName(name.text, claim) || map.Allows(name, claim)) return name;
  }
  return std::nullopt;
}

}  // namespace gate
