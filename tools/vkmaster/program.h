#pragma once

namespace vkmaster {

/// The whole program; returns its exit status.
int RunProgram(int argc, const char* const* argv);

}  // namespace vkmaster
