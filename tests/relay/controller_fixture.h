#pragma once

#include <sys/socket.h>

#include <csignal>
#include <memory>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "log/flog.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"
#include "tests/relay/stub_connector.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"

/// A controller over a stub connector, with the master's end of its link in the test's hands.
///
/// The master writes its requests beforehand and goes; then the controller serves them; then the
/// test reads what it answered.
class ControllerTest : public testing::Test {
 protected:
  ControllerTest() {
    signal(SIGPIPE, SIG_IGN);
    auto stub = std::make_unique<StubConnector>();
    stub_ = stub.get();
    controller_ = std::make_unique<ConnectorSocketWrapper>(std::move(stub), "node17", &socket_,
                                                           9001, 60, log_);
  }
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override { testing::internal::GetCapturedStdout(); }

  /// Puts one frame on the link: its length, then `hex`, which begins with the request code.
  void MasterSends(std::string_view hex) { WriteAll(pair_.peer.get(), Frame(Bytes(hex))); }

  /// Lets the controller serve what was sent until it ends; the result of its loop.
  int Serve() {
    shutdown(pair_.peer.get(), SHUT_WR);
    const int result = controller_->ProcessRequests(error_);
    socket_.Close();
    replies_ = Hex(ReadExactly(pair_.peer.get(), 1'000'000));
    return result;
  }

  /// Serves one request and then the end of the link.
  std::string ReplyTo(std::string_view hex) {
    MasterSends(hex);
    EXPECT_EQ(Serve(), 1) << error_;
    return replies_;
  }

  std::string Logged() const { return directory_.Read("log"); }

  TemporaryDirectory directory_;
  flog log_{directory_.File("log"), true};
  SocketPair pair_;
  Socket socket_{pair_.ours.Release()};
  StubConnector* stub_;
  std::unique_ptr<ConnectorSocketWrapper> controller_;
  std::string error_;
  std::string replies_;  ///< all that the master received, in hex
};
