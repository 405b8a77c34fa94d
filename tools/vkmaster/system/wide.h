#pragma once

#include <string>
#include <string_view>

namespace vkmaster {

/// From the UTF-8 of this program to the UTF-16 of Windows, and back. What is not valid becomes
/// replacement characters.
std::wstring Wide(std::string_view text);
std::string Narrow(std::wstring_view text);

}  // namespace vkmaster
