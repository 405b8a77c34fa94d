#pragma once

#include <string>

#include "tools/jobmillctl/serve/board.h"

namespace jobmillctl::serve {

struct Address {
  std::string host = "127.0.0.1";
  int port = 9480;
};

/// Reads "127.0.0.1:9480" or "[::1]:9480". Throws Failed for anything else: names are not looked
/// up.
Address ReadAddress(const std::string& text);

/// Listens and answers until SIGTERM or SIGINT, in this one thread. Throws Failed when it cannot
/// listen. `announce` is told the port, which the system chooses where 0 is given. Everything that
/// a peer can do is bounded: how many there are at once, how long a request may take and be.
void Serve(Board& board, const Address& address, void (*announce)(const Address& address));

}  // namespace jobmillctl::serve
