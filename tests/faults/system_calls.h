#pragma once

#include <string>
#include <string_view>
#include <vector>

/// What can go wrong with one system call of x86-64 Linux.
struct SystemCall {
  long number;
  std::string_view name;
  /// Errors that the kernel may report here for reasons outside the program: a full table, disk or
  /// memory, a peer, a limit, an administrator. Those that only a wrong argument can cause are in
  /// the list where a program is expected to look at the result all the same.
  std::vector<int> errors;
  /// Which argument is the number of bytes to transfer; -1 when none is.
  int size_argument = -1;
  /// Whether the kernel does the work and reports an error nevertheless, as close() does.
  bool performed = false;
  /// How its second argument describes the pieces of a scattered transfer.
  enum class Pieces {
    kNone,
    kVector,   ///< as an array of them, whose length is the third argument
    kMessage,  ///< as a struct msghdr
  } pieces = Pieces::kNone;
};

/// The entry of call `number`; null when it has none.
const SystemCall* FindCall(long number);
const SystemCall* FindCall(std::string_view name);

/// "ENOENT" for ENOENT, and back. Throws std::invalid_argument for a name without a number.
std::string ErrorName(int error);
int ErrorNumber(std::string_view name);

/// Whether `error` of call `number` may be met again and again: an interruption is over when it has
/// been reported, and a full socket when the caller has waited.
bool CanLast(long number, int error);
