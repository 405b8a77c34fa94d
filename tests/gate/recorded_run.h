#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/gate/gates.h"
#include "tests/support/bytes.h"

/// What one end said in one piece.
struct Said {
  From from;
  std::string bytes;
};

/// A run of vkmaster with the stand-in simulator, as `python3 -m jobmill.wire record` has written
/// it: recorded_run.jsonl beside this file.
inline std::vector<Said> RecordedRun() {
  std::ifstream file(RECORDED_RUN);
  std::vector<Said> run;
  for (std::string line; std::getline(file, line);) {
    const std::size_t hex = line.find("\"hex\": \"");
    if (hex == std::string::npos) continue;
    const bool client = line.find("\"from\": \"client\"") != std::string::npos;
    const std::size_t begin = hex + 8;
    run.push_back(
        {client ? kMaster : kDaemon, Bytes(line.substr(begin, line.find('"', begin) - begin))});
  }
  if (run.empty()) throw std::runtime_error("no recorded run in " RECORDED_RUN);
  return run;
}

/// Lets both ends say what they said, each piece when the other has heard all before it, and comes
/// back whenever there is no connection, until the link has ended or nothing happens.
inline void Play(const std::vector<Said>& run, Gates& gates) {
  std::size_t due[2] = {0, 0};
  std::size_t next = 0;
  const auto say = [&] {
    while (next < run.size()) {
      const Said& one = run[next];
      const From other = one.from == kMaster ? kDaemon : kMaster;
      if (gates.heard(other).size() < due[other]) return;
      gates.Say(one.from, one.bytes);
      due[one.from] += one.bytes.size();
      ++next;
    }
    gates.End(kMaster);
    gates.End(kDaemon);
  };
  for (bool moved = true; moved;) {
    say();
    moved = gates.Once(1024);
    if (!gates.up() && gates.connecting().state() != gate::Stream::State::kEnded) {
      gates.Connect();
      moved = true;
    }
  }
}
