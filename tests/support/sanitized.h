#pragma once

/// Whether the programs were built with a sanitizer: memory that was freed is kept then, everything
/// takes longer, and a lack of memory ends the process.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
