#pragma once

#include <string>
#include <string_view>

namespace vkmaster {

/// Between the UTF-8 of this program and what Windows calls Unicode. What is neither becomes
/// replacement characters.
std::wstring Wide(std::string_view text);
std::string Narrow(std::wstring_view text);

}  // namespace vkmaster
