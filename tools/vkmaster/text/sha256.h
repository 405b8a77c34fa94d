#pragma once

#include <string>
#include <string_view>

namespace vkmaster {

/// The SHA-256 digest (FIPS 180-4) of `bytes` as 64 hexadecimal digits, as sha256sum prints it.
std::string Sha256(std::string_view bytes);

}  // namespace vkmaster
