#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "inspect/finding.h"

namespace {

std::string TextOf(const std::filesystem::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void Collect(const std::string& text, const char* pattern, std::set<std::string>& ids) {
  const std::regex expression(pattern);
  for (std::sregex_iterator found(text.begin(), text.end(), expression), end; found != end;
       ++found) {
    ids.insert((*found)[1]);
  }
}

TEST(DocumentedTest, FindingsAreThoseOfThePage) {
  const std::filesystem::path root = SOURCES;
  std::set<std::string> known;
  for (const auto& entry : std::filesystem::directory_iterator(root / "inspect")) {
    if (entry.path().extension() != ".cc" || entry.path().stem() == "finding") continue;
    Collect(TextOf(entry.path()),
            "\"((accepted|options|program|users|environment|script|service|host|port)\\.[a-z-]+)\"",
            known);
  }
  ASSERT_FALSE(known.empty());
  std::set<std::string> documented;
  Collect(TextOf(root / "docs" / "jobmillctl.md"), "\n\\| `([a-z]+\\.[a-z-]+)` \\|", documented);
  EXPECT_EQ(known, documented);
  std::erase_if(known, [](const std::string& id) { return id.starts_with("accepted."); });
  EXPECT_EQ(known, inspect::FindingIds());
}

}  // namespace
