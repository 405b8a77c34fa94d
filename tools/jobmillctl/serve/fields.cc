#include "tools/jobmillctl/serve/fields.h"

#include <time.h>

namespace jobmillctl::serve {

const Json& At(const Json& document, std::initializer_list<const char*> names) {
  static const Json kNothing;
  const Json* found = &document;
  for (const char* name : names) {
    if (!found->is_object()) return kNothing;
    const auto inner = found->find(name);
    if (inner == found->end()) return kNothing;
    found = &*inner;
  }
  return *found;
}

std::optional<double> NumberOf(const Json& object, const char* field) {
  const Json& value = At(object, {field});
  return value.is_number() ? std::optional(value.get<double>()) : std::nullopt;
}

std::string TextOf(const Json& object, const char* field) {
  const Json& value = At(object, {field});
  return value.is_string() ? value.get<std::string>() : "";
}

std::optional<double> TimeIn(const Json& text) {
  if (!text.is_string()) return std::nullopt;
  tm time{};
  const auto& written = text.get_ref<const std::string&>();
  const char* rest = strptime(written.c_str(), "%Y-%m-%dT%H:%M:%S%z", &time);
  if (rest == nullptr || *rest != '\0') return std::nullopt;
  const long offset = time.tm_gmtoff;  // timegm() sets it to zero
  return static_cast<double>(timegm(&time) - offset);
}

}  // namespace jobmillctl::serve
