#include "base/descriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include <gtest/gtest.h>

namespace {

bool IsOpen(int number) {
  return fcntl(number, F_GETFD) != -1;
}

Descriptor Opened() {
  return Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

TEST(DescriptorTest, IsClosedWithItsOwnerOrBefore) {
  int first = -1;
  {
    const Descriptor descriptor = Opened();
    first = descriptor.get();
    EXPECT_TRUE(descriptor);
    EXPECT_TRUE(IsOpen(first));
  }
  EXPECT_FALSE(IsOpen(first));
  Descriptor descriptor = Opened();
  const int second = descriptor.get();
  descriptor.Reset();
  EXPECT_FALSE(descriptor);
  EXPECT_FALSE(IsOpen(second));
}

TEST(DescriptorTest, MovesToAnotherOwnerWhoClosesWhatHeHadBefore) {
  Descriptor one = Opened();
  Descriptor other = Opened();
  const int number = one.get();
  const int former = other.get();
  other = std::move(one);
  EXPECT_EQ(other.get(), number);
  EXPECT_TRUE(IsOpen(number));
  EXPECT_FALSE(IsOpen(former));
  EXPECT_EQ(one.get(), -1);  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
}

TEST(DescriptorTest, ReleasedOneIsTheCallers) {
  int number = -1;
  {
    Descriptor descriptor = Opened();
    number = descriptor.Release();
    EXPECT_FALSE(descriptor);
  }
  EXPECT_TRUE(IsOpen(number));
  close(number);
}

TEST(DescriptorTest, ClosingLeavesErrnoAlone) {
  Descriptor descriptor = Opened();
  close(descriptor.get());  // so that the second time fails
  errno = EDOM;
  descriptor.Reset();
  EXPECT_EQ(errno, EDOM);
}

}  // namespace
