#include "tools/jobmillctl/serve/board.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <stdexcept>

#include <fmt/format.h>

#include "inspect/run_file.h"
#include "inspect/runs.h"
#include "tools/jobmillctl/run_view.h"
#include "tools/jobmillctl/serve/assets.h"
#include "tools/jobmillctl/serve/metrics.h"

namespace jobmillctl::serve {
namespace {

// A hostile master can make each of its runs some hundred kilobytes long.
constexpr std::size_t kMostOfSnapshot = 64 << 20;

constexpr const char* kPage = "text/html; charset=utf-8";
constexpr const char* kText = "text/plain; charset=utf-8";
constexpr const char* kJson = "application/json";

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string Decoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
    const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
    if (low >= 0) {
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      decoded += text[i] == '+' ? ' ' : text[i];
    }
  }
  return decoded;
}

bool IsAddress(const std::string& host) {
  std::array<unsigned char, sizeof(in6_addr)> address{};
  if (host.starts_with('[') && host.ends_with(']')) {
    return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), address.data()) == 1;
  }
  return inet_pton(AF_INET, host.c_str(), address.data()) == 1;
}

Json JsonOf(const Timeline& timeline) {
  Json states = Json::array();
  for (const Timeline::Span& span : timeline.states()) {
    states.push_back({{"state", span.state},
                      {"since", TimeText(span.since)},
                      {"until", TimeText(span.until)},
                      {"seconds", span.until - span.since}});
  }
  Json points = Json::array();
  for (const Timeline::Point& point : timeline.points()) {
    points.push_back({{"time", TimeText(point.time)},
                      {"day", OrNull(point.day)},
                      {"requests", OrNull(point.requests)}});
  }
  const auto ended = timeline.ended();
  const auto queued = timeline.Queued();
  return {{"schema", 1},
          {"seen", TimeText(timeline.seen())},
          {"gone", ended ? Json(TimeText(*ended)) : Json()},
          {"queued_seconds", queued ? Json(queued->seconds) : Json()},
          {"queued_at_most", queued && queued->at_most},
          {"simulator_processors", OrNull(timeline.processors())},
          {"run", timeline.run()},
          {"states", states},
          {"points", points}};
}

}  // namespace

Target ReadTarget(const std::string& target) {
  Target read;
  const std::size_t question = target.find('?');
  read.path = Decoded(std::string_view(target).substr(0, question));
  if (question == std::string::npos) return read;
  std::string_view rest = std::string_view(target).substr(question + 1);
  while (!rest.empty()) {
    const std::string_view part = rest.substr(0, rest.find('&'));
    rest.remove_prefix(std::min(rest.size(), part.size() + 1));
    const std::size_t equals = std::min(part.find('='), part.size());
    read.variables[Decoded(part.substr(0, equals))] =
        Decoded(part.substr(std::min(equals + 1, part.size())));
  }
  return read;
}

Board::Board(std::string file, std::vector<std::string> hosts)
    : file_(std::move(file)), hosts_(std::move(hosts)) {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  hosts_.emplace_back(name.data());
  hosts_.emplace_back("localhost");
}

void Board::Refresh() {
  struct stat status {};
  if (stat(file_.c_str(), &status) != 0) {
    trouble_ = file_ + ": " + strerror(errno);
    return;
  }
  const std::pair version(status.st_ino, static_cast<double>(status.st_mtim.tv_sec) +
                                             static_cast<double>(status.st_mtim.tv_nsec) / 1e9);
  if (version == known_) return;
  try {
    Read();
    known_ = version;
    trouble_.clear();
  } catch (const std::exception& error) {
    trouble_ = file_ + ": " + error.what();
  }
}

void Board::Read() {
  const inspect::RunFile file(file_);
  if (!file.error().empty()) throw std::runtime_error(file.error());
  if (file.size() > static_cast<std::int64_t>(kMostOfSnapshot)) {
    throw std::runtime_error("it is too long");
  }
  Json read = Json::parse(file.Read(0, kMostOfSnapshot));
  if (read.at("schema") != 1) throw std::runtime_error("it is of another version");
  const Json& runs = read.at("runs");
  const double time = runs.at("time").get<double>();
  if (runs.at("document").is_object() && time > added_) {
    timelines_.Add(runs.at("document").at("status"), time);
    added_ = time;
  }
  snapshot_ = std::move(read);
}

View Board::ViewNow() const {
  return {snapshot_, timelines_, inspect::Now(), trouble_};
}

// A page elsewhere can have its own name lead to this server, and then ask it in the name of
// whoever looks at that page. It cannot have the browser send an address or a name that it does not
// own.
bool Board::IsOurs(const std::string& host) const {
  const std::size_t colon = host.rfind(':');
  const bool has_port = colon != std::string::npos && host.find(']', colon) == std::string::npos;
  const std::string name = has_port ? host.substr(0, colon) : host;
  return IsAddress(name) || std::ranges::find(hosts_, name) != hosts_.end();
}

Reply Board::Answer(const Request& request) const {
  if (!IsOurs(request.host)) {
    return {421, kText,
            "This server has another name. See the option --host of jobmillctl serve.\n"};
  }
  if (request.method != "GET" && request.method != "HEAD") {
    return {405, kText, "Nothing can be changed here.\n"};
  }
  const Target target = ReadTarget(request.target);
  const View view = ViewNow();
  const auto variable = [&](const char* name) {
    const auto found = target.variables.find(name);
    return found == target.variables.end() ? std::string() : found->second;
  };
  const std::string& path = target.path;
  if (path == "/") {
    return {200, kPage, RunsPage(view, {variable("state"), variable("text"), variable("ended")})};
  }
  if (path == "/metrics") return {200, "text/plain; version=0.0.4; charset=utf-8", Metrics(view)};
  if (path == "/page.css") return {200, "text/css; charset=utf-8", kPageCss};
  if (path == "/page.js") return {200, "text/javascript; charset=utf-8", kPageJs};
  if (path == "/icon.svg") return {200, "image/svg+xml", kIconSvg};
  if (path.starts_with("/api/")) return AnswerApi(path, view);
  constexpr std::string_view kRun = "/runs/";
  if (path.starts_with(kRun)) {
    const Timeline* run = timelines_.Find(path.substr(kRun.size()));
    if (run != nullptr) return {200, kPage, RunPage(view, *run)};
    return {404, kPage, SentencePage(view, "There is no such run, nor was there one lately.")};
  }
  return {404, kPage, SentencePage(view, "There is no such page.")};
}

Reply Board::AnswerApi(const std::string& path, const View& view) const {
  const auto whole = [](const Json& document) {
    if (document.is_null()) return Reply{503, kJson, Dump({{"error", "it was not looked at yet"}})};
    return Reply{200, kJson, Dump(document)};
  };
  if (path == "/api/runs") {
    Json status = At(snapshot_, {"runs", "document", "status"});
    if (status.is_object()) status["collected"] = IsCollected(view);
    return whole(status);
  }
  if (path == "/api/history") return whole(At(snapshot_, {"history", "document"}));
  if (path == "/api/check") return whole(At(snapshot_, {"check", "document"}));
  constexpr std::string_view kRun = "/api/runs/";
  const Timeline* run =
      path.starts_with(kRun) ? timelines_.Find(path.substr(kRun.size())) : nullptr;
  if (run == nullptr) return {404, kJson, Dump({{"error", "there is no such document"}})};
  return whole(JsonOf(*run));
}

}  // namespace jobmillctl::serve
