#include "daemon/manager_information.h"

#include <fcntl.h>

#include <memory>
#include <type_traits>

#include <gtest/gtest.h>

#include "net/socket.h"
#include "tests/support/socket_pair.h"

namespace {

static_assert(std::has_virtual_destructor_v<CManagerInformation>);

TEST(ManagerInformationTest, DestructionClosesTheMastersConnection) {
  SocketPair pair;
  const int number = pair.ours.get();
  auto info = std::make_unique<CManagerInformation>("script", false, 60, 9001, true, nullptr,
                                                    new Socket(pair.ours.Release()));
  EXPECT_EQ(info->script, "script");
  EXPECT_EQ(info->start_timeout, 60);
  EXPECT_EQ(info->comms_port, 9001);
  EXPECT_FALSE(info->run_as_root);
  EXPECT_TRUE(info->comms_log);
  info.reset();
  EXPECT_EQ(fcntl(number, F_GETFD), -1);
}

}  // namespace
