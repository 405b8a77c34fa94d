#pragma once

#include <errno.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "inspect/finding.h"
#include "inspect/probe.h"
#include "tests/support/answered_call.h"

// Questions that are asked in a process of their own, which sees the machine otherwise than the
// test does. "none" where there was no answer.

inline std::string InProcess(const std::function<std::string()>& question) {
  return inspect::Ask(question, std::chrono::minutes(1)).value_or("none");
}

/// With each file or directory of `mounts` in the place of the one that it is mapped to. "no mount"
/// where the system does not permit that.
inline std::string WithMounts(const std::map<std::string, std::string>& mounts,
                              const std::function<std::string()>& question) {
  return InProcess([&]() -> std::string {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return "no mount";
    for (const auto& [from, to] : mounts) {
      if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0) return "no mount";
    }
    return question();
  });
}

/// As an account without any rights; needs root.
inline std::string AsNobody(const std::function<std::string()>& question) {
  constexpr unsigned nobody = 65534;
  return InProcess([&] {
    if (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0) {
      throw std::runtime_error("not root");
    }
    return question();
  });
}

/// Where the system call `number` gets `answer`, from then on.
inline std::string WithAnsweredCall(int number, CallAnswer answer,
                                    const std::function<std::string()>& question) {
  return InProcess([&] {
    if (!AnswerCall(number, answer)) throw std::runtime_error("no seccomp");
    return question();
  });
}

/// Where the process gets no pipe, so that it can ask nobody in its turn.
inline std::string WithoutPipes(const std::function<std::string()>& question) {
  return WithAnsweredCall(
      SYS_pipe2, []() -> long { return -EMFILE; }, question);
}

/// The findings' ids, each followed by ';'.
inline std::string IdsIn(const inspect::Findings& findings) {
  std::string ids;
  for (const inspect::Finding& finding : findings) ids += std::string(finding.id) + ";";
  return ids;
}
