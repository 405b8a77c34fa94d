#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/allocation/failing_allocations.h"
#include "tests/support/child_process.h"
#include "tests/support/socket_pair.h"
#include "tests/support/wire_bytes.h"
#include "vk_ec/v2017_2/varnok_client.h"

// The client's operations that no request of the master reaches; the others are swept with their
// requests. A failed allocation reaches the caller as what it is, and afterwards the client either
// still is in step with the simulator or refuses to go on.

namespace {

using Strings = std::vector<std::string>;

class Client : public v2017_2::vk_ec::VarnokClient {
 public:
  explicit Client(int connected) : VarnokClient(connected) {}
};

const std::string kEnd = wire::Mess("END");
const std::string kReady = wire::Mess("READY") + kEnd;
const Strings kWells = {"PRODUCER-OF-THE-NORTH-FLANK", "INJECTOR-OF-THE-SOUTH-FLANK"};

struct Outcome {
  std::string result;
  bool reached = false;
  long leaked = 0;
  long leaked_descriptors = 0;
};

// Runs `operation`, then asks whether the simulator is still understood.
Outcome Run(const std::function<void(Client&)>& operation, const std::string& headers, long failing,
            Failing mode) {
  Outcome outcome;
  outcome.result.reserve(200);
  const auto descriptors = static_cast<long>(OpenDescriptors(getpid()));
  const long live = LiveAllocations();
  {
    SocketPair pair;
    const std::string reply = wire::Mess("REPLY").append(headers).append(kEnd);
    for (const std::string& message : {reply, kReady, wire::Mess("FINISHED").append(kEnd)}) {
      WriteAll(pair.peer.get(), wire::Framed(message));
    }
    shutdown(pair.peer.get(), SHUT_WR);
    Client client(pair.ours.Release());
    {
      const FailingAllocations failures(failing, mode);
      try {
        operation(client);
        outcome.result.append("done");
      } catch (const std::bad_alloc&) {
        outcome.result.append("no memory");
      }
    }
    outcome.reached = FailingAllocations::Reached();
    try {
      client.do_continue();
      outcome.result.append(", in step");
    } catch (const std::logic_error& refusal) {
      outcome.result.append(", ").append(refusal.what());
    }
  }
  outcome.leaked = LiveAllocations() - live;
  outcome.leaked_descriptors = static_cast<long>(OpenDescriptors(getpid())) - descriptors;
  return outcome;
}

void Sweep(const std::function<void(Client&)>& operation, const std::string& headers) {
  signal(SIGPIPE, SIG_IGN);
  constexpr long kUndisturbed = 1'000'000'000;
  EXPECT_EQ(Run(operation, headers, kUndisturbed, Failing::kOnce).result, "done, in step");
  for (const Failing mode : {Failing::kOnce, Failing::kForGood}) {
    for (long failing = 1; !testing::Test::HasFailure(); ++failing) {
      const Outcome outcome = Run(operation, headers, failing, mode);
      SCOPED_TRACE(testing::Message() << "allocation " << failing << " fails " << mode);
      EXPECT_EQ(outcome.leaked, 0);
      EXPECT_EQ(outcome.leaked_descriptors, 0);
      if (!outcome.reached) {
        EXPECT_EQ(outcome.result, "done, in step");
        EXPECT_GT(failing, 4);
        break;
      }
      EXPECT_TRUE(outcome.result ==
                      "no memory, Cannot create a new out-going message as the previous message is "
                      "still on going." ||
                  outcome.result.starts_with("no memory, Incorrect header"))
          << outcome.result;
    }
  }
}

TEST(ClientSweep, Constraints) {
  Sweep([](Client& client) { client.get_constraints_for_wells(kWells); },
        wire::Cstr("WELLNAME", {kWells[0]}) + wire::Cstr("ITEMS", {"OIL_PRODUCTION_RATE"}) +
            wire::Doub("VALUES", {7}) + wire::Cstr("SETTERS", {"THE-USER-WHO-SET-IT"}));
}

TEST(ClientSweep, InflowData) {
  Sweep(
      [](Client& client) {
        client.get_ipr_data_for_wells(kWells, {"BHP", "BHP"}, 2, 1.0);
      },
      wire::Cstr("WELLNAME", {kWells[0]}) + wire::Inte("NPOINTS", {2}) +
          wire::Cstr("ITEM", {"OIL_PRODUCTION_RATE"}) + wire::Doub("VALUES", {1, 2}));
}

TEST(ClientSweep, ComponentsOfTheFieldManagementModel) {
  Sweep([](Client& client) { client.get_field_management_fluid_model_description(); },
        wire::Cstr("NCOMPS", {"A-LONG-COMPONENT-NAME", "ANOTHER-COMPONENT-NAME"}));
}

}  // namespace
