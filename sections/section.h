#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <toml++/toml.h>

// TOML files read key by key. Decks, plans and the tests' cases are such files. Their readers say
// in their own words what is wrong at a key, and this folder names the file and the line.
namespace sections {

struct Place {
  std::string file;
  std::uint32_t line = 1;  ///< 0 when the file cannot be opened

  /// Throws Error.
  [[noreturn]] void Fail(const std::string& complaint) const;
};

/// Something in a file is not as it has to be. what() is the complaint without the place.
class Error : public std::runtime_error {
 public:
  Error(Place place, const std::string& complaint)
      : std::runtime_error(complaint), place_(std::move(place)) {}

  const Place& place() const { return place_; }

 private:
  Place place_;
};

class Section;

/// A value and its place. It shares the file's tree, which lives as long as anything read from it.
class Value {
 public:
  Value(std::shared_ptr<const toml::node> node, const std::string& file)
      : node_(std::move(node)), place_{file, node_->source().begin.line} {}

  const Place& place() const { return place_; }

  /// Nothing when the value is of another type.
  std::optional<std::string> Text() const { return node_->value_exact<std::string>(); }
  std::optional<std::int64_t> Integer() const { return node_->value_exact<std::int64_t>(); }
  std::optional<double> Number() const;  ///< of an integer too
  std::optional<std::chrono::year_month_day> Date() const;

  /// True for a time of day, with a date or without.
  bool HasTime() const { return node_->is_date_time() || node_->is_time(); }

  /// Throw Error with `complaint` when the value is of another type.
  std::vector<Value> List(const std::string& complaint) const;
  Section Table(const std::string& complaint) const;

 private:
  std::shared_ptr<const toml::node> node_;
  Place place_;
};

/// One table of a file. Remembers which keys it was asked for, so that a misspelt one can be
/// refused instead of silently leaving something out.
class Section {
 public:
  /// The top of a file called `file`. Both throw Error where the text is no TOML, ReadFile() also
  /// when the file cannot be opened.
  static Section Parse(std::string_view text, const std::string& file);
  static Section ReadFile(const std::string& file);

  Section(std::shared_ptr<const toml::table> table, const std::string& file)
      : table_(std::move(table)), place_{file, table_->source().begin.line} {}

  const Place& place() const { return place_; }

  std::optional<Value> Find(std::string_view key);

  /// The place of the value, or of the section when there is no such key.
  Place PlaceOf(std::string_view key) const;

  /// All keys with their places, topmost first.
  std::vector<std::pair<std::string, Place>> Keys() const;

  /// The topmost key that Find() was not asked for.
  std::optional<std::pair<std::string, Place>> Unknown() const;

 private:
  std::shared_ptr<const toml::table> table_;
  Place place_;
  std::set<std::string, std::less<>> known_;
};

}  // namespace sections
