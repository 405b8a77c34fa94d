#pragma once

#include <cstdint>
#include <optional>
#include <vector>

/// A system call that is to fail.
struct RefusedCall {
  long number = 0;                       ///< SYS_...
  int error = 0;                         ///< its errno
  std::optional<std::uint32_t> first{};  ///< only with this as its first argument
};

/// From now on the kernel refuses these calls to this process, to what it executes and to every
/// child of theirs, for good. Where the process may not filter calls otherwise, it also gives up
/// what set-user-id programs would gain. False when the system has no such filters.
bool RefuseCalls(const std::vector<RefusedCall>& calls);

/// The calls by which a process gets a child.
std::vector<RefusedCall> NoChildren(int error);
