#pragma once

#include <cmath>
#include <optional>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace jobmillctl {

/// Documents keep the order of their fields. What is not known is null.
using Json = nlohmann::ordered_json;

template <typename Value>
Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

inline Json TextOrNull(const std::string& text) {
  return text.empty() ? Json(nullptr) : Json(text);
}

/// A day without needless digits. Simulators may send what is no number.
inline Json DayOrNull(const std::optional<double>& day) {
  return day && std::isfinite(*day) ? Json(*day) : Json(nullptr);
}

/// The document as lines of ASCII alone: no text of a run commands a terminal, and none makes the
/// document invalid.
inline std::string Dump(const Json& document) {
  return document.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

inline void PrintDocument(const Json& document) {
  fmt::print("{}", Dump(document));
}

}  // namespace jobmillctl
