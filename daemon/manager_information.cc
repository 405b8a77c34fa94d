#include "daemon/manager_information.h"

#include <utility>

#include "net/socket.h"

CManagerInformation::CManagerInformation(std::string distribution_script, bool as_root,
                                         std::int32_t timeout_seconds, std::int32_t port,
                                         bool with_comms_log, flog* daemon_log,
                                         Socket* accepted_master)
    : script(std::move(distribution_script)),
      run_as_root(as_root),
      start_timeout(timeout_seconds),
      comms_port(port),
      comms_log(with_comms_log),
      log(daemon_log),
      master(accepted_master) {}

CManagerInformation::~CManagerInformation() {
  master->Close();
  delete master;
}
