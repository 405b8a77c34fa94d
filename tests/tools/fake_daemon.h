#pragma once

#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/support/ports.h"
#include "tests/support/socket_pair.h"

/// The daemon's end of one connection.
class DaemonEnd {
 public:
  explicit DaemonEnd(int descriptor) : descriptor_(descriptor) {}

  void Send(const std::string& body) { SendRaw(Frame(body)); }

  /// Bytes without a frame.
  void SendRaw(const std::string& bytes) { WriteAll(descriptor_, bytes); }

  /// The next frame's body, also kept in received(); nothing at the end of the connection.
  std::optional<std::string> Receive() {
    const std::string field = ReadExactly(descriptor_, 4);
    if (field.size() < 4) return std::nullopt;
    received_.push_back(ReadExactly(descriptor_, NumberAt<std::uint32_t>(field)));
    return received_.back();
  }

  /// Whether a further frame comes within a fifth of a second, without its being read.
  bool HasMore() const {
    pollfd wait{descriptor_, POLLIN, 0};
    return poll(&wait, 1, 200) == 1;
  }

  const std::vector<std::string>& received() const { return received_; }

 private:
  int descriptor_;
  std::vector<std::string> received_;
};

/// Packs a reply as the daemon does.
class Pack {
 public:
  explicit Pack(std::uint32_t code) : body_(Image(code)) {}
  Pack& Int(int value) { return Add(Image(value)); }
  Pack& Double(double value) { return Add(Image(value)); }
  Pack& String(const std::string& text) { return Add(PackedText(text)); }
  Pack& Series(const std::vector<double>& values) {
    Int(static_cast<int>(values.size()));
    for (const double value : values) Double(value);
    return *this;
  }
  /// With the acknowledgement.
  std::string Done() {
    Int(0);
    return body_;
  }

 private:
  Pack& Add(const std::string& bytes) {
    body_ += bytes;
    return *this;
  }
  std::string body_;
};

/// What a request's fields are, read without any check: the master under test is expected to send
/// them well.
class Fields {
 public:
  explicit Fields(const std::string& body) : rest_(body) {}
  int Int() { return Take<int>(); }
  double Double() { return Take<double>(); }
  std::string String() {
    const auto size = static_cast<std::size_t>(Int());
    std::string text = rest_.substr(0, size);
    rest_.erase(0, size);
    return text;
  }
  std::vector<std::string> Strings(int count) {
    std::vector<std::string> texts;
    texts.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) texts.push_back(String());
    return texts;
  }

 private:
  template <typename T>
  T Take() {
    const T value = NumberAt<T>(rest_);
    rest_.erase(0, sizeof(value));
    return value;
  }
  std::string rest_;
};

/// A run of three wells that starts on 2020-01-01, for a daemon to serve.
struct FakeRun {
  struct Well {
    std::string name;
    std::string type;
    std::string status;
  };
  bool metric = true;
  double end = 1e9;                           ///< day at which the simulation ends
  std::set<std::uint32_t> fails;              ///< codes on which the daemon closes the connection
  std::function<void(std::uint32_t)> before;  ///< called with each code before it is served
  std::vector<Well> wells{
      {"P1", "PRODUCER", "OPEN"}, {"P2", "PRODUCER", "SHUT"}, {"I1", "WATER_INJECTOR", "OPEN"}};

  bool has_eos = true;                   ///< else the model has no components
  std::vector<double> interaction{0.1};  ///< binary interaction coefficients
  bool flows_liquid = true;              ///< else the inflow tables hold gas alone
  bool short_lists = false;              ///< lists of properties are shorter than the first one
  std::size_t missing_variables = 0;     ///< how many values fewer than asked for

  int source_answer = 1;  ///< what the simulator answers to an external source; 0 refuses it
  bool obeys = true;      ///< else statuses and uptimes are acknowledged and nothing else
  bool compositional = true;
  std::map<std::string, double> uptimes;

  double rise = 0;  ///< of every rate, a day

  double time = 0;
  bool first_step = false;

  /// Serves requests until the shutdown, a failure or the end of the connection.
  void Serve(DaemonEnd& master) {
    while (const auto request = master.Receive()) {
      const auto code = NumberAt<std::uint32_t>(*request);
      if (before) before(code);
      if (fails.contains(code)) return;
      Answer(master, code, request->substr(4));
      if (code == 65520) return;
    }
  }

  void Answer(DaemonEnd& master, std::uint32_t code, const std::string& body) {
    Fields fields(body);
    switch (code) {
      case 2:
        SendDate(master, code, time);
        break;
      case 3:
        master.Send(Pack(code).Int(metric ? 1 : 0).Done());
        break;
      case 4:
        master.Send(Pack(code).Double(time).Done());
        break;
      case 5:
        master.Send(Pack(code).Int(compositional ? 1 : 0).Done());
        break;
      case 6:
        SendWells(master);
        break;
      case 8:
        time = std::min(end, fields.Double());
        master.Send(Pack(code).Done());
        break;
      case 9:
        master.Send(Pack(code).Int(time >= end ? 1 : 0).Done());
        break;
      case 10:
        SendData(master, fields.Strings(fields.Int()));
        break;
      case 11:
        SetStatuses(fields);
        master.Send(Pack(code).Done());
        break;
      case 12:
        SetUptimes(fields);
        master.Send(Pack(code).Done());
        break;
      case 14:
        SendEOS(master);
        break;
      case 15:
        SendVariables(master, fields);
        break;
      case 16:
        SendIPR(master, fields);
        break;
      case 17:
        master.Send(Pack(code).Double(2017.2).Done());
        break;
      case 18:
        master.Send(Pack(code).Int(source_answer).Done());
        break;
      case 20:
        SendDate(master, code, 0);
        break;
      default:
        master.Send(Pack(code).Done());
    }
  }

  void SetStatuses(Fields& fields) {
    const int names = fields.Int();
    const int values = fields.Int();
    const std::vector<std::string> of = fields.Strings(names);
    const std::vector<std::string> statuses = fields.Strings(values);
    std::map<std::string, std::string> given;
    for (std::size_t i = 0; i < of.size() && i < statuses.size(); ++i) given[of[i]] = statuses[i];
    for (Well& well : wells) {
      if (obeys && given.contains(well.name)) well.status = given[well.name];
    }
  }

  void SetUptimes(Fields& fields) {
    const int names = fields.Int();
    fields.Int();
    const std::vector<std::string> of = fields.Strings(names);
    for (const std::string& name : of) {
      const double fraction = fields.Double();
      if (obeys) uptimes[name] = fraction;
    }
  }

  void SendDate(DaemonEnd& master, std::uint32_t code, double days) const {
    using std::chrono::sys_days;
    const sys_days start = std::chrono::year(2020) / 1 / 1;
    const std::chrono::year_month_day date(start + std::chrono::days(static_cast<int>(days)));
    master.Send(Pack(code)
                    .Int(static_cast<int>(static_cast<unsigned>(date.day())))
                    .Int(static_cast<int>(static_cast<unsigned>(date.month())))
                    .Int(static_cast<int>(date.year()))
                    .Done());
  }

  void SendWells(DaemonEnd& master) const {
    Pack reply(6);
    reply.Int(static_cast<int>(wells.size()));
    for (const Well& well : wells) reply.String(well.name).String(well.type).String(well.status);
    master.Send(reply.Done());
  }

  void SendData(DaemonEnd& master, const std::vector<std::string>& names) const {
    master.Send(Pack(10).Int(static_cast<int>(names.size())).Done());
    for (std::size_t i = 0; i < names.size() && master.Receive(); ++i) {
      const double base = 100 * static_cast<double>(i + 1) + rise * time;
      Pack record(4096);
      record.String("OPEN");
      for (const double value : {base, base + 1, base + 2, base + 3, base + 4, 250.5, 30.25,
                                 uptimes.contains(names[i]) ? uptimes.at(names[i]) : 0.95}) {
        record.Double(value);
      }
      master.Send(record.Done());
    }
  }

  void SendEOS(DaemonEnd& master) const {
    Pack reply(14);
    if (!has_eos || !compositional) {
      reply.String("").Int(0);
      for (int list = 0; list < 12; ++list) reply.Series({});
      return master.Send(reply.Done());
    }
    reply.String("PR").Int(2).String("C1").String("CO2");
    reply.Series({16.04, 44.01}).Series({190.6, 304.1}).Series({46.0, 73.8}).Series({99, 94});
    reply.Series({0.011, 0.239}).Series({}).Series({111.6, 194.7}).Series({-0.15, -0.08});
    reply.Series({0.457, 0.457}).Series({0.0778, 0.0778});
    reply.Series(short_lists ? std::vector<double>{77} : std::vector<double>{77, 78});
    reply.Series(interaction);
    master.Send(reply.Done());
  }

  void SendVariables(DaemonEnd& master, Fields& fields) const {
    fields.String();
    const int count = fields.Int() - static_cast<int>(missing_variables);
    std::vector<double> values;
    values.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) values.push_back(10.5 * (i + 1));
    master.Send(Pack(15).Series(values).Done());
  }

  void SendIPR(DaemonEnd& master, Fields& fields) const {
    const int components = fields.Int();
    const int count = fields.Int();
    master.Send(Pack(16).Int(count).Int(10).Done());
    for (int well = 0; well < count && master.Receive(); ++well) {
      std::vector<std::vector<double>> lists(8);
      for (int point = 0; point < 10; ++point) {
        const double rate = 1000 - 100 * point;
        lists[0].push_back(300 - rate / 10);
        lists[1].push_back(flows_liquid ? rate : 0);
        lists[2].push_back(flows_liquid ? rate / 4 : 0);
        lists[3].push_back(rate * 100);
        for (std::size_t i = 4; i < 8; ++i) lists[i].push_back(80);
      }
      if (short_lists) lists[4].resize(9);
      Pack table(4097);
      for (const auto& list : lists) table.Series(list);
      for (int point = 0; components > 0 && point < 10; ++point) {
        table.Series(std::vector<double>(static_cast<std::size_t>(components), 0.5));
      }
      master.Send(table.Done());
    }
  }
};

/// A daemon on a free port of the loopback interface for one connection. Destroying it waits for
/// the master's going.
class FakeDaemon {
 public:
  using Script = std::function<void(DaemonEnd&)>;

  /// `script` has the connection from its first byte on.
  explicit FakeDaemon(Script script)
      : listener_(BindFreePort(1)), port_(PortOf(listener_.get())), script_(std::move(script)) {
    thread_ = std::thread([this] { Serve(); });
  }
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;
  ~FakeDaemon() { Called(); }

  /// Launches as a daemon does and lets `run` serve.
  static Script Launching(FakeRun& run) {
    return [&run](DaemonEnd& master) {
      if (Handshake(master)) {
        master.Send(std::string("OK|node17\0", 10));
        run.Serve(master);
      }
    };
  }

  /// Refuses the run request with `text`.
  static Script Refusing(const std::string& text) {
    return [text](DaemonEnd& master) {
      if (Handshake(master)) master.Send(text);
    };
  }

  static bool Handshake(DaemonEnd& master) {
    master.Send("3");
    for (int line = 0; line < 8; ++line) {
      if (!master.Receive()) return false;
    }
    return true;
  }

  int port() const { return port_; }

  /// Whether a master has come so far; none can come later. Returns when it has gone.
  bool Called() {
    eventfd_write(leave_.get(), 1);
    if (thread_.joinable()) thread_.join();
    return called_;
  }

  /// All frames that the master sent, as hex, once it has come and gone.
  std::vector<std::string> Frames() {
    if (thread_.joinable()) thread_.join();
    return frames_;
  }

  /// The frames after the handshake.
  std::vector<std::string> Requests() {
    std::vector<std::string> frames = Frames();
    frames.erase(frames.begin(), frames.begin() + std::min<std::ptrdiff_t>(8, std::ssize(frames)));
    return frames;
  }

 private:
  void Serve() {
    // Bounded, so that a test whose master never comes still ends.
    std::array<pollfd, 2> waits{{{listener_.get(), POLLIN, 0}, {leave_.get(), POLLIN, 0}}};
    poll(waits.data(), waits.size(), 20000);
    called_ = waits[0].revents != 0;
    if (!called_) return;
    const Descriptor master(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    DaemonEnd end(master.get());
    script_(end);
    frames_.reserve(end.received().size());
    for (const std::string& frame : end.received()) frames_.push_back(Hex(frame));
  }

  Descriptor listener_;
  Descriptor leave_{eventfd(0, EFD_CLOEXEC)};
  int port_;
  Script script_;
  bool called_ = false;
  std::vector<std::string> frames_;
  std::thread thread_;
};
