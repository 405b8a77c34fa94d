// The part of the status page that strangers talk to: it has no rights, and shows what the
// collector has left for it.

#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/serve/board.h"
#include "tools/jobmillctl/serve/server.h"
#include "tools/jobmillctl/snapshot.h"

namespace jobmillctl {

void DeclareServe(CLI::App& app, Action& chosen) {
  struct Given {
    std::string address = "127.0.0.1:9480";
    std::string file = kSnapshotFile;
    std::vector<std::string> hosts;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* command =
      app.add_subcommand("serve", "Show in a browser and to a Prometheus what collect has seen");
  command->add_option("--listen", given->address, "Where to listen; who reaches it sees all")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str();
  command->add_option("--snapshot", given->file, "The file of collect")
      ->type_name("FILE")
      ->capture_default_str();
  command
      ->add_option("--host", given->hosts,
                   "A further name of this server, for example that of a proxy in front of it")
      ->type_name("NAME");
  command->callback([given, &chosen] {
    chosen = [given]() -> int {
      const serve::Address address = serve::ReadAddress(given->address);
      serve::Board board(given->file, given->hosts);
      serve::Serve(board, address, [](const serve::Address& heard) {
        const bool brackets = heard.host.find(':') != std::string::npos;
        Print(fmt::format("Serving on http://{}{}{}:{}/", brackets ? "[" : "", heard.host,
                          brackets ? "]" : "", heard.port));
      });
      return kOk;
    };
  });
}

}  // namespace jobmillctl
