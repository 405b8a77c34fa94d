#pragma once

#include <string>
#include <string_view>

#include "tools/vkmaster/report/results.h"

namespace vkmaster {

/// The columns as a compressed text that the page's script takes apart again: of each column the
/// differences of neighbouring values, as numbers of 32 bits, whose bytes of equal rank stand
/// together; all of that compressed by zlib and written in base64.
///
/// The values of a run hardly change from step to step, and then the high bytes of the differences
/// are mostly equal, which is what zlib needs. A smooth curve takes a sixth of its 32 bits a value,
/// and a third of what it would without the differences; one with noise of a thousandth two thirds.
std::string Packed(const Columns& columns);

std::string Base64(std::string_view bytes);

}  // namespace vkmaster
