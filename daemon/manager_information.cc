#include "daemon/manager_information.h"

#include <utility>

#include "net/socket.h"

CManagerInformation::CManagerInformation(std::string distributionScript, bool asRoot,
                                         std::int32_t timeoutSeconds, std::int32_t port,
                                         bool withCommsLog, flog* daemonLog, Socket* acceptedMaster)
    : script(std::move(distributionScript)),
      runAsRoot(asRoot),
      startTimeout(timeoutSeconds),
      commsPort(port),
      commsLog(withCommsLog),
      log(daemonLog),
      master(acceptedMaster) {}

CManagerInformation::~CManagerInformation() {
  master->Close();
  delete master;
}
