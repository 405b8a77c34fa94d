#pragma once

#include <array>
#include <string>
#include <string_view>

/// The processes of one run, each up to the program that it becomes, if any: what a script or a
/// shell does is not ours.
enum class Role {
  kNone,    ///< of a later run, or not ours
  kDaemon,  ///< the accept loop
  kChild,   ///< the connection child
  kScript,  ///< the fork of the connection child that executes the distribution script
  kCopy,    ///< the fork of system(), which executes the shell that copies the input file
};

inline constexpr std::array<Role, 4> kRoles = {Role::kDaemon, Role::kChild, Role::kScript,
                                               Role::kCopy};

std::string_view NameOf(Role role);

/// One trial: a scenario, one system call of one of its processes, and what happens there.
struct Point {
  enum class Kind {
    kUndisturbed,
    kError,    ///< the call fails
    kLasting,  ///< and so do all later calls of its kind in this process
    kShort,    ///< fewer bytes are transferred than asked for
    kKill,     ///< the process is killed before it
  };

  std::string scenario;
  Role role = Role::kNone;
  long call = -1;
  int occurrence = 0;  ///< which call of that number of the process, from 1
  Kind kind = Kind::kUndisturbed;
  int error = 0;

  /// "run:child:recvfrom#3:ECONNRESET", with "+" after an error that lasts; "short" and "kill"
  /// in place of an error.
  std::string Text() const;

  /// The reverse. Throws std::invalid_argument.
  static Point Parse(const std::string& text);
};
