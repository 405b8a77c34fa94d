#include "daemon/globals.h"

SocketServer* Gps = nullptr;
char GszExePath[1024] = "";
std::string GsLogFileDir = "/var/log";
const std::string GsZRMVersion = "ZRM11";
