#pragma once

#include <string>
#include <string_view>

namespace jobmillctl::serve {

/// `text`, which is UTF-8, for any place in a page: between elements or in a quoted attribute. What
/// cannot be seen, or changes how its neighbours are shown, is written as \xNN or \u{NNNN}.
std::string Html(std::string_view text);

/// The same, of no more than the first `most` characters.
std::string Html(std::string_view text, std::size_t most);

/// `text` for the value of a query: everything but letters, digits and -._ as %NN.
std::string QueryValue(std::string_view text);

}  // namespace jobmillctl::serve
