// What is read of the collector's documents. A field that is missing is like one that is null.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>

#include "tools/jobmillctl/json_values.h"

namespace jobmillctl::serve {

/// A part of a document, by the names of objects in one another; null where there is none.
const Json& At(const Json& document, std::initializer_list<const char*> names);

/// The number or the text in a field of an object. None, or empty, where it is something else.
std::optional<double> NumberOf(const Json& object, const char* field);
std::string TextOf(const Json& object, const char* field);

/// The time, in seconds since 1970, in a text such as "2026-11-22T10:40:19+01:00". None when it is
/// no such text.
std::optional<double> TimeIn(const Json& text);

}  // namespace jobmillctl::serve
