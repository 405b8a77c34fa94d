#include "inspect/comms_log.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "base/number.h"

namespace inspect {
namespace {

constexpr std::string_view kEnd = "Request process loop failed: ";
constexpr std::string_view kNaturalEnd = "Process loop has exited naturally";
constexpr unsigned kShutdown = 65520;

// The names of the requests from code 1 on.
constexpr std::array<const char*, 20> kRequests = {"connect",          "date",
                                                   "metric",           "time",
                                                   "compositional",    "wells",
                                                   "first step",       "run until",
                                                   "has ended",        "operating points",
                                                   "set status",       "set uptime",
                                                   "set constraints",  "equation of state",
                                                   "variables",        "inflow tables",
                                                   "version",          "set source",
                                                   "set compositions", "start date"};

// What follows `begin` in a line that begins so.
std::optional<std::string> After(std::string_view line, std::string_view begin) {
  if (!line.starts_with(begin)) return std::nullopt;
  return std::string(line.substr(begin.size()));
}

void AddLine(std::string_view line, CommsLog& log) {
  ++log.lines;
  if (const auto header = After(line, "Received header: ")) {
    ++log.requests;
    log.last_request = static_cast<unsigned>(NumberIn(header->c_str()));
  } else if (const auto connect = After(line, "Connect on host: ")) {
    constexpr std::string_view port = ", port: ";
    const std::size_t end = connect->find(port);
    log.host = connect->substr(0, end);
    if (end != std::string::npos) {
      log.port = static_cast<int>(NumberIn(connect->c_str() + end + port.size()));
    }
    if (const auto zero = log.host->find('\0'); zero != std::string::npos) log.host->resize(zero);
  } else if (const auto days = After(line, "GetTimeDays: ")) {
    log.day = strtod(days->c_str(), nullptr);
  } else if (const auto until = After(line, "Running until ")) {
    log.until = strtod(until->c_str(), nullptr);
  } else if (const auto date = After(line, "Getting date: ")) {
    std::istringstream fields(*date);
    int day = 0;
    int month = 0;
    int year = 0;
    char comma = 0;
    if (!(fields >> day >> comma >> month >> comma >> year)) return;
    std::array<char, 40> text{};
    snprintf(text.data(), text.size(), "%04d-%02d-%02d", year, month, day);
    log.date = text.data();
  } else if (line.starts_with(kEnd)) {
    log.cause = After(line, kEnd);
    log.cause_line = log.lines;
  } else if (line.starts_with(kNaturalEnd)) {
    log.cause = "the master shut it down";
    log.shut_down = true;
    log.cause_line = log.lines;
  }
}

}  // namespace

void AddLines(std::string_view text, CommsLog& log) {
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    AddLine(text.substr(0, end), log);
    text.remove_prefix(end + 1);
  }
}

std::string RequestName(unsigned code) {
  if (code == kShutdown) return "shut down";
  return code >= 1 && code <= kRequests.size() ? kRequests.at(code - 1)
                                               : "unknown (" + std::to_string(code) + ")";
}

}  // namespace inspect
