#include "daemon/answer.h"

#include <stdlib.h>

#include <memory>
#include <string>

#include "base/number.h"
#include "daemon/handshake.h"
#include "daemon/launch.h"
#include "daemon/manager_information.h"
#include "daemon/refusal.h"
#include "log/flog.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"

namespace {

// This process becomes the controller of the run: it serves the master's requests until the run
// ends and writes the outcome into the comms log.
void ControlRun(const CManagerInformation& info, const RunRequest& run, const std::string& root,
                const std::string& host) {
  const std::string name = run.path + root + ".crvnlog";
  // The system ends a file's name at the first zero byte. With one in the path or in the root name
  // the master could have the log replace any file of the account.
  const bool wanted = info.comms_log && name.find('\0') == std::string::npos;
  flog log(wanted ? name : std::string(), true);
  const auto version = static_cast<int>(NumberIn(run.version.c_str()));
  ConnectorSocketWrapper controller(version, host, info.master, info.comms_port, info.start_timeout,
                                    log);
  std::string error;
  if (controller.ProcessRequests(error) == 0) {
    log << "Process loop has exited naturally, going to sleep again ... \n";
  } else {
    log << "Request process loop failed: " << error.c_str() << "\n";
  }
}

void AnswerCall(const CManagerInformation& info) {
  const RunRequest run = ShakeHands(info);
  const std::string root = PrepareClusterRun(run, *info.log);
  if (!StartScript(info, run, root)) return;
  const std::string host = AwaitHost(*info.log);
  SendLine(*info.master, "OK|" + host);
  ControlRun(info, run, root, host);
}

}  // namespace

int Answer(void* info) {
  std::unique_ptr<CManagerInformation> connection(static_cast<CManagerInformation*>(info));
  flog& log = *connection->log;
  try {
    AnswerCall(*connection);
    return 0;
  } catch (const Refusal& refusal) {
    if (!refusal.text.empty()) connection->master->SendLine(refusal.text);
  } catch (const char* text) {
    log << "Socket connection failed: " << text << "\n";
  } catch (...) {
    log << "Socket connection failed\n";
  }
  connection.reset();
  exit(1);
}
