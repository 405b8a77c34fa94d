// A master that says anything, with gates that ask for records ahead between it and a model of the
// daemon: it hears what it would hear without them, in whatever pieces all of it comes and wherever
// the link between the gates is cut.

#include <cstdint>
#include <string>

#include "fuzz/support/input.h"
#include "fuzz/support/promise.h"
#include "tests/gate/daemon_model.h"
#include "tests/gate/gates.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  constexpr std::size_t kPieces[] = {7, 100, 1000};
  const std::size_t piece = kPieces[input.Byte() % 3];
  const std::size_t cut = input.Byte();
  const std::size_t pause = input.Byte();
  const std::string said = Handshake() + std::string(input.Rest());

  DaemonModel directly;
  const std::string expected = DaemonModel::Greeting() + directly.Take(said);

  DaemonModel daemon;
  Gates gates;
  gates.Connect();
  // The handshake in large pieces, so that most of the time goes into what follows.
  gates.Say(kMaster, Handshake());
  gates.Run(1000);
  const From from = cut % 2 == 0 ? kMaster : kDaemon;
  if (cut > 0) gates.CutAt(from, gates.crossed(from) + cut);
  // Part of it is said when everything has been heard that there is to hear before.
  const std::size_t begun = Handshake().size();
  const std::size_t first = begun + pause % (said.size() - begun + 1);
  gates.Say(kMaster, said.substr(begun, first - begun));
  std::size_t answered = 0;
  bool greeted = false;
  bool all_said = false;
  bool ended = false;
  while (true) {
    if (gates.Once(piece)) continue;
    if (!gates.up() && gates.connecting().state() != gate::Stream::State::kEnded) {
      gates.Connect();
    } else if (gates.HasServing() && !greeted) {
      greeted = true;
      gates.Say(kDaemon, DaemonModel::Greeting());
    } else if (answered < gates.heard(kMaster).size()) {
      gates.Say(kDaemon, daemon.Take(gates.heard(kMaster).substr(answered)));
      answered = gates.heard(kMaster).size();
    } else if ((daemon.ended() || gates.heard_end(kMaster)) && !ended) {
      ended = true;
      gates.End(kDaemon);
    } else if (!all_said) {
      all_said = true;
      gates.Say(kMaster, said.substr(first));
      gates.End(kMaster);
    } else {
      break;
    }
  }
  PROMISE(gates.heard(kDaemon) == expected);
  PROMISE(gates.heard_end(kDaemon));
  PROMISE(gates.connecting().reason() == gate::Reason::kFinished);
  return 0;
}
