#include "tools/jobmillctl/serve/fields.h"

#include <time.h>

#include <cstdio>

namespace jobmillctl::serve {

const Json& At(const Json& document, std::initializer_list<const char*> names) {
  static const Json nothing;
  const Json* found = &document;
  for (const char* name : names) {
    if (!found->is_object()) return nothing;
    const auto inner = found->find(name);
    if (inner == found->end()) return nothing;
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
  int hours = 0;
  int minutes = 0;
  char sign = '+';
  const auto& written = text.get_ref<const std::string&>();
  if (sscanf(written.c_str(), "%d-%d-%dT%d:%d:%d%c%d:%d", &time.tm_year, &time.tm_mon,
             &time.tm_mday, &time.tm_hour, &time.tm_min, &time.tm_sec, &sign, &hours,
             &minutes) != 9) {
    return std::nullopt;
  }
  time.tm_year -= 1900;
  time.tm_mon -= 1;
  const int offset = (hours * 60 + minutes) * 60;
  return static_cast<double>(timegm(&time) - (sign == '-' ? -offset : offset));
}

}  // namespace jobmillctl::serve
