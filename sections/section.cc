#include "sections/section.h"

#include <algorithm>
#ifdef _WIN32
#include <filesystem>
#include <fstream>
#endif

namespace sections {
namespace {

template <typename Parse>
Section Parsed(const std::string& file, const Parse& parse) {
  try {
    return {std::make_shared<const toml::table>(parse()), file};
  } catch (const toml::parse_error& error) {
    throw Error({file, error.source().begin.line}, std::string(error.description()));
  }
}

}  // namespace

void Place::Fail(const std::string& complaint) const {
  throw Error(*this, complaint);
}

std::optional<double> Value::Number() const {
  return node_->is_number() ? node_->value<double>() : std::nullopt;
}

std::optional<std::chrono::year_month_day> Value::Date() const {
  const auto date = node_->value_exact<toml::date>();
  if (!date) return std::nullopt;
  return std::chrono::year{date->year} / date->month / date->day;
}

std::vector<Value> Value::List(const std::string& complaint) const {
  if (!node_->is_array()) place_.Fail(complaint);
  std::vector<Value> values;
  for (const toml::node& each : *node_->as_array()) {
    values.emplace_back(std::shared_ptr<const toml::node>(node_, &each), place_.file);
  }
  return values;
}

Section Value::Table(const std::string& complaint) const {
  if (!node_->is_table()) place_.Fail(complaint);
  return {std::shared_ptr<const toml::table>(node_, node_->as_table()), place_.file};
}

Section Section::Parse(std::string_view text, const std::string& file) {
  return Parsed(file, [&] { return toml::parse(text, file); });
}

Section Section::ReadFile(const std::string& file) {
#ifdef _WIN32
  // The library would take the name for one in the code page of the machine.
  const std::filesystem::path path(std::u8string(file.begin(), file.end()));
  std::ifstream in(path, std::ios::binary);
  if (!in) throw Error({file, 0}, "File could not be opened for reading");
  return Parsed(file, [&] { return toml::parse(in, file); });
#else
  return Parsed(file, [&] { return toml::parse_file(file); });
#endif
}

std::optional<Value> Section::Find(std::string_view key) {
  known_.emplace(key);
  const toml::node* node = table_->get(key);
  if (node == nullptr) return std::nullopt;
  return Value(std::shared_ptr<const toml::node>(table_, node), place_.file);
}

Place Section::PlaceOf(std::string_view key) const {
  const toml::node* node = table_->get(key);
  return node == nullptr ? place_ : Place{place_.file, node->source().begin.line};
}

std::vector<std::pair<std::string, Place>> Section::Keys() const {
  std::vector<std::pair<std::string, Place>> keys;
  for (const auto& [key, node] : *table_) {
    keys.emplace_back(key.str(), Place{place_.file, key.source().begin.line});
  }
  // The library gives them in alphabetical order.
  std::stable_sort(keys.begin(), keys.end(),
                   [](const auto& a, const auto& b) { return a.second.line < b.second.line; });
  return keys;
}

std::optional<std::pair<std::string, Place>> Section::Unknown() const {
  for (const auto& key : Keys()) {
    if (!known_.contains(key.first)) return key;
  }
  return std::nullopt;
}

}  // namespace sections
