#include "daemon/texts.h"

#include "daemon/globals.h"

std::string UsageText() {
  return "Usage: vkjobmill.exe.\n"
         "-p <listen_port> - port on which to listen for Corvane requests\n"
         "-o <comms base port> - start port for VK-controller communication, will be incremented "
         "with each run (default 9001)\n"
         "-n <number of free comms ports> - number of free ports, starting from the base port, for "
         "VK-controller communication (default 100)\n"
         "-s <script> - distribution script (fully qualified path)\n"
         "-t <timeout(s)> - the time to wait for Varnok to start (not including any 'PEND' time), "
         "default = 60\n"
         "-u - run under this user account (not root)\n"
         "-l - generate comms log file in data directory\n"
         "-v - print version information\n";
}

std::string VersionText() {
  return "Jobmill.\nProtocol version: " + std::to_string(kProtocolMajor) + "." +
         std::to_string(kProtocolMinor) + ".\nZRM compatibility version: " + GsZRMVersion +
         "\nVarnok API version compatibility: built with API for V2016.2 ->\n";
}
