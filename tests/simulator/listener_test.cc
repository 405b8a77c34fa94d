#include "simulator/listener.h"

#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <array>
#include <bit>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "simulator/stop_signal.h"
#include "tests/support/answered_call.h"
#include "tests/support/socket_pair.h"
#include "tests/support/text_of_child.h"

namespace simulator {
namespace {

using std::chrono::milliseconds;

long NoDescriptorLeft() {
  return -EMFILE;
}

Descriptor Connected(std::uint16_t port) {
  Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(connection.get(), std::bit_cast<sockaddr*>(&name), sizeof name) != 0) {
    throw std::runtime_error("not connected");
  }
  return connection;
}

TEST(ListenerTest, AddressThatIsNoneIsNamed) {
  for (const char* address : {"localhost", "::1", "127.0.0.256", ""}) {
    try {
      const Listener listener(address, 0);
      ADD_FAILURE() << "listens on '" << address << "'";
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), (std::string("not an IPv4 address: ") + address).c_str());
    }
  }
}

TEST(ListenerTest, SystemWithoutADescriptorLeftIsTheReasonGiven) {
  const auto text = TextOfChild([]() -> std::optional<std::string> {
    if (!AnswerCall(SYS_socket, NoDescriptorLeft)) return std::nullopt;
    const Listener listener("127.0.0.1", 5000);
    return "listens";
  });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw cannot listen on 127.0.0.1:5000: Too many open files");
}

TEST(ListenerTest, PortThatCannotBeListenedOnIsNamedWithTheReason) {
  const auto text = TextOfChild([]() -> std::optional<std::string> {
    if (!AnswerCall(SYS_listen, [] { return static_cast<long>(-EADDRINUSE); })) {
      return std::nullopt;
    }
    const Listener listener("127.0.0.1", 0);
    return "listens";
  });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw cannot listen on 127.0.0.1:0: Address already in use");
}

// What comes of a controller that has connected, when the attempts to let it in end with these
// errors, one after the other.
std::optional<std::string> Admission(const std::array<int, 6>& errors) {
  static std::array<int, 6> left;
  static std::size_t next;
  left = errors;
  next = 0;
  return TextOfChild([]() -> std::optional<std::string> {
    const StopSignal stop;
    Listener listener("127.0.0.1", 0);
    const Descriptor controller = Connected(listener.port());
    if (!AnswerCall(SYS_accept4, [] { return static_cast<long>(-left.at(next++)); })) {
      return std::nullopt;
    }
    return listener.accept(std::chrono::seconds(10), stop) ? "let in" : "nobody";
  });
}

TEST(ListenerTest, ControllerThatIsGoneBeforeItIsLetInIsWaitedPast) {
  const auto text = Admission({EINTR, ECONNABORTED, EAGAIN, EPROTO, EINTR, EMFILE});
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw accept: Too many open files") << "only after the five others";
}

TEST(ListenerTest, ControllerThatCannotBeLetInEndsTheWait) {
  const auto text = Admission({ENOMEM});
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw accept: Cannot allocate memory");
}

TEST(StopSignalTest, SystemWithoutADescriptorLeftIsTheReasonGiven) {
  const auto text = TextOfChild([]() -> std::optional<std::string> {
    if (!AnswerCall(SYS_eventfd2, NoDescriptorLeft)) return std::nullopt;
    const StopSignal stop;
    return "made";
  });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw eventfd: Too many open files");
}

TEST(StopSignalTest, InterruptedWaitGoesOnAndAFailedOneIsReported) {
  static int calls = 0;
  const auto text = TextOfChild([]() -> std::optional<std::string> {
    const StopSignal stop;
    if (!AnswerCall(SYS_poll, [] { return calls++ < 3 ? -EINTR : static_cast<long>(-ENOMEM); })) {
      return std::nullopt;
    }
    return stop.wait(-1, milliseconds(-1)) == StopSignal::Wait::kTimeout ? "timeout" : "ready";
  });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "threw poll: Cannot allocate memory");
}

TEST(StopSignalTest, WaitThatTheKernelEndsTooSoonIsTakenUpAgain) {
  const auto text = TextOfChild([]() -> std::optional<std::string> {
    const StopSignal stop;
    if (!AnswerCall(SYS_poll, [] { return 0L; })) return std::nullopt;
    const auto begin = std::chrono::steady_clock::now();
    const bool timeout = stop.wait(-1, milliseconds(50)) == StopSignal::Wait::kTimeout;
    const bool late = std::chrono::steady_clock::now() - begin >= milliseconds(50);
    return std::string(timeout ? "timeout" : "ready") + (late ? " in time" : " too soon");
  });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*text, "timeout in time");
}

}  // namespace
}  // namespace simulator
