// A master, the two gates, and the daemon's own dispatcher over a stub connector: what the master
// hears, what the connector is asked for and how the run ends are the same with and without gates
// that ask for records ahead.

#include <poll.h>
#include <sys/socket.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "log/flog.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"
#include "tests/gate/daemon_model.h"
#include "tests/gate/gates.h"
#include "tests/relay/stub_connector.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"

namespace {

constexpr int kWells = 5;

std::unique_ptr<StubConnector> Stub() {
  auto stub = std::make_unique<StubConnector>();
  stub->days = 30.5;
  for (int i = 0; i < kWells; ++i) {
    DynWellOpPt point;
    point.status = "OPEN";
    point.oil_rate = i;
    stub->operating_points.push_back(point);
    DynWellIPR table;
    table.pressure.assign(10, i);
    stub->tables.push_back(table);
  }
  return stub;
}

// The dispatcher of one run, at work until the master's end of its link has gone.
class Dispatcher {
 public:
  Dispatcher() : socket_(pair_.ours.Release()) {
    auto stub = Stub();
    stub_ = stub.get();
    wrapper_ = std::make_unique<ConnectorSocketWrapper>(std::move(stub), "node17", &socket_, 9001,
                                                        60, log_);
    thread_ = std::thread([this] {
      result_ = wrapper_->ProcessRequests(error_);
      socket_.Close();
    });
  }
  ~Dispatcher() { Join(); }

  int link() const { return pair_.peer.get(); }
  void Join() {
    if (!thread_.joinable()) return;
    shutdown(link(), SHUT_RDWR);
    thread_.join();
  }
  // After Join().
  std::string End() const { return std::to_string(result_) + ' ' + error_; }
  std::vector<std::string> Calls() const { return stub_->calls; }
  std::string Logged() const { return directory_.Read("log"); }

 private:
  TemporaryDirectory directory_;
  flog log_{directory_.File("log"), true};
  SocketPair pair_;
  Socket socket_;
  StubConnector* stub_ = nullptr;
  std::unique_ptr<ConnectorSocketWrapper> wrapper_;
  int result_ = -1;
  std::string error_;
  std::thread thread_;
};

struct Outcome {
  std::string heard;
  std::string end;
  std::vector<std::string> calls;
  std::string logged;
};

// What the master says, in parts: each when it has heard so many bytes. Without bytes, it is gone.
struct Part {
  std::string bytes;
  std::size_t after;
};

// Waits until the dispatcher says something or goes; false when neither happens.
bool Waits(int link) {
  pollfd waiting{.fd = link, .events = POLLIN, .revents = 0};
  return poll(&waiting, 1, 10'000) > 0;
}

Outcome Directly(const std::vector<Part>& script) {
  Dispatcher dispatcher;
  std::string heard;
  for (const Part& part : script) {
    while (heard.size() < part.after) {
      const std::string more = ReadExactly(dispatcher.link(), part.after - heard.size());
      if (more.empty()) break;
      heard += more;
    }
    WriteAll(dispatcher.link(), part.bytes);
    if (part.bytes.empty()) dispatcher.Join();
  }
  shutdown(dispatcher.link(), SHUT_WR);
  heard += ReadExactly(dispatcher.link(), 1'000'000);
  dispatcher.Join();
  return {heard, dispatcher.End(), dispatcher.Calls(), dispatcher.Logged()};
}

// The dispatcher is where the handshake has ended, so the handshake is played here.
Outcome ThroughGates(const std::vector<Part>& script, std::size_t piece, bool ahead) {
  Dispatcher dispatcher;
  Gates gates({.ahead = ahead});
  gates.Connect();
  gates.Say(kMaster, Handshake());
  gates.Run();
  const std::string greeting = DaemonModel::Greeting() + PackedText("OK|node17");
  gates.Say(kDaemon, greeting);
  gates.Run();
  std::size_t put = Handshake().size();
  std::size_t next = 0;
  bool gone = false;
  while (true) {
    bool moved = gates.Once(piece);
    const std::size_t heard = gates.heard(kDaemon).size() - greeting.size();
    if (next < script.size() && (heard >= script[next].after || gates.heard_end(kDaemon))) {
      if (script[next].bytes.empty()) {
        gates.Break(kMaster);
      } else {
        gates.Say(kMaster, script[next].bytes);
      }
      if (++next == script.size()) gates.End(kMaster);
      moved = true;
    }
    if (put < gates.heard(kMaster).size()) {
      WriteAll(dispatcher.link(), gates.heard(kMaster).substr(put));
      put = gates.heard(kMaster).size();
      moved = true;
    }
    if (gates.heard_end(kMaster) && !gone) shutdown(dispatcher.link(), SHUT_WR);
    if (gates.heard_break(kMaster)) break;
    if (moved) continue;
    if (gone || !Waits(dispatcher.link())) break;
    const std::string said = Arrived(dispatcher.link());
    gates.Say(kDaemon, said);
    if (said.empty()) {
      gone = true;
      gates.End(kDaemon);
    }
  }
  EXPECT_TRUE(gates.heard_end(kDaemon) || gates.heard_break(kMaster));
  dispatcher.Join();
  return {gates.heard(kDaemon).substr(greeting.size()), dispatcher.End(), dispatcher.Calls(),
          dispatcher.Logged()};
}

void ExpectTheSame(const std::vector<Part>& script, const std::string& where) {
  const Outcome directly = Directly(script);
  for (const bool ahead : {true, false}) {
    for (const std::size_t piece : {3UL, 1000UL}) {
      const Outcome through = ThroughGates(script, piece, ahead);
      ASSERT_EQ(Hex(through.heard), Hex(directly.heard)) << where;
      ASSERT_EQ(through.end, directly.end) << where;
      ASSERT_EQ(through.calls, directly.calls) << where;
      ASSERT_EQ(through.logged, directly.logged) << where;
    }
  }
}

struct Exchange {
  const char* name;
  std::string request;
  std::string ask;
  std::size_t first_reply;
  std::size_t record;
};

Exchange Data() {
  return {"data", Frame(Bytes("0a 00 00 00 05 00 00 00 5*(01 00 00 00 'A')")),
          Frame(Bytes("00 10 00 00")), 16, 84};
}
Exchange Tables() {
  return {"tables",
          Frame(Bytes("10 00 00 00 00 00 00 00 05 00 00 00 5*(01 00 00 00 'A') 01 8*(00)")),
          Frame(Bytes("01 10 00 00")), 20, 124};
}

class GatesAndDispatcherTest : public testing::Test {
 protected:
  GatesAndDispatcherTest() { signal(SIGPIPE, SIG_IGN); }
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override { testing::internal::GetCapturedStdout(); }

  // The request, and `asked` records one after the other; what has been heard by then.
  static std::size_t Begin(const Exchange& exchange, int asked, std::vector<Part>& script,
                           std::size_t heard = 0) {
    script.push_back({exchange.request, heard});
    heard += exchange.first_reply;
    for (int i = 0; i < asked; ++i) {
      script.push_back({exchange.ask, heard});
      heard += exchange.record;
    }
    return heard;
  }
};

TEST_F(GatesAndDispatcherTest, WholeRunIsTheSame) {
  std::vector<Part> script;
  std::size_t heard = Begin(Data(), kWells, script);
  heard = Begin(Tables(), kWells, script, heard);
  script.push_back({Frame(Bytes("04 00 00 00")), heard});
  heard = Begin(Data(), kWells, script, heard + 20);
  script.push_back({Frame(Bytes("f0 ff 00 00")), heard});
  ExpectTheSame(script, "");
  EXPECT_EQ(Directly(script).heard.size(), heard + 12);
}

TEST_F(GatesAndDispatcherTest, AllAtOnceIsTheSame) {
  std::string all = Data().request;
  for (int i = 0; i < kWells; ++i) all += Data().ask;
  all += Frame(Bytes("04 00 00 00")) + Tables().request;
  for (int i = 0; i < kWells; ++i) all += Tables().ask;
  ExpectTheSame({{all + Frame(Bytes("f0 ff 00 00")), 0}}, "");
}

TEST_F(GatesAndDispatcherTest, DeviationAtEveryRecordIsTheSame) {
  for (const Exchange& exchange : {Data(), Tables()}) {
    for (int asked = 0; asked <= kWells; ++asked) {
      for (const char* deviation :
           {"", "04 00 00 00 04 00 00 00", "04 00 00 00 02 10 00 00", "00 00 00 00",
            "08 00 00 00 00 10 00 00 00 00 00 00", "02 00 00 00 01 10", "01 00 01 00 04 00 00 00",
            "04 00 00 00 f0 ff 00 00", "04 00 00 00 0a 00 00 00 04 00 00 00 00 10 00 00"}) {
        std::vector<Part> script;
        const std::size_t heard = Begin(exchange, asked, script);
        script.push_back({Bytes(deviation), heard});
        ExpectTheSame(script,
                      std::string(exchange.name) + ", " + std::to_string(asked) + ": " + deviation);
        // The same without waiting for the records.
        std::string all;
        for (const Part& part : script) all += part.bytes;
        ExpectTheSame({{all, 0}}, std::string(exchange.name) + " at once, " +
                                      std::to_string(asked) + ": " + deviation);
      }
    }
  }
}

// A master that goes for good in the middle of a frame: the daemon waits for one that has only
// stopped sending.
TEST_F(GatesAndDispatcherTest, MasterThatIsGoneAtEveryRecordIsTheSame) {
  for (const Exchange& exchange : {Data(), Tables()}) {
    for (int asked = 0; asked <= kWells; ++asked) {
      for (const char* begun : {"", "04", "04 00 00 00 00", "08 00 00 00 00 10 00 00 00"}) {
        std::vector<Part> script;
        const std::size_t heard = Begin(exchange, asked, script);
        if (*begun != '\0') script.push_back({Bytes(begun), heard});
        script.push_back({"", heard});
        ExpectTheSame(script,
                      std::string(exchange.name) + ", " + std::to_string(asked) + ": " + begun);
      }
    }
  }
}

}  // namespace
