// Every handler of a request behind a stub connector: the connector gets exactly the fields that
// the request holds, each reply is one whole frame with the request's code and the acknowledgement
// at its end, however little of it the link takes at once, and what does not fit ends in one of the
// errors that the log knows.

#include <errno.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "connector/connector_base.h"
#include "fuzz/support/input.h"
#include "fuzz/support/memory_link.h"
#include "fuzz/support/promise.h"
#include "log/flog.h"
#include "net/master_link.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"

namespace {

using master_link::Code;
using Texts = std::vector<std::string>;
using Numbers = std::vector<double>;

constexpr std::size_t kFields = master_link::kMaxFrame - sizeof(unsigned);

// What a request says, in the members that its handler passes on.
struct Fields {
  bool past = false;  // it does not end before the receive buffer does
  int count = 0;
  bool flag = false;
  double number = 0;
  std::string text, other_text;
  Texts texts, other_texts;
  Numbers numbers;
  std::vector<Texts> text_groups;
  std::vector<Numbers> number_groups;

  bool operator==(const Fields& other) const {
    return past == other.past && count == other.count && flag == other.flag &&
           Bits(number) == Bits(other.number) && text == other.text &&
           other_text == other.other_text && texts == other.texts &&
           other_texts == other.other_texts && Same(numbers, other.numbers) &&
           text_groups == other.text_groups &&
           std::equal(number_groups.begin(), number_groups.end(), other.number_groups.begin(),
                      other.number_groups.end(), Same);
  }

 private:
  // As bits: what is not a number is not equal to itself.
  static std::uint64_t Bits(double value) { return std::bit_cast<std::uint64_t>(value); }
  static bool Same(const Numbers& a, const Numbers& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](double one, double other) { return Bits(one) == Bits(other); });
  }
};

// Reads a request's fields from a receive buffer, as the page of the protocol says.
class Reader {
 public:
  Reader(std::string_view buffer, Fields& fields) : rest_(buffer), fields_(fields) {}

  void Read(unsigned code) {
    switch (code) {
      case Code::kRunUntil:
        return Take(fields_.number);
      case Code::kGetWellData:
        return TakeTexts(Count(), fields_.texts);
      case Code::kSetWellStatus: {
        const int n = Count();
        const int m = Count();
        TakeTexts(n, fields_.texts);
        return TakeTexts(m, fields_.other_texts);
      }
      case Code::kSetWellUptime: {
        const int n = Count();
        const int m = Count();
        TakeTexts(n, fields_.texts);
        return TakeNumbers(m, fields_.numbers);
      }
      case Code::kSetWellConstraints:
        TakeTexts(Count(), fields_.texts);
        for (int g = Count(); g > 0 && !fields_.past; --g) {
          TakeTexts(Count(), fields_.text_groups.emplace_back());
        }
        return TakeNumberGroups();
      case Code::kGetWellVariables:
        TakeText(fields_.text);
        return TakeTexts(Count(), fields_.texts);
      case Code::kGetWellIPRData:
        fields_.count = Count();
        TakeTexts(Count(), fields_.texts);
        TakeFlag();
        return Take(fields_.number);
      case Code::kSetWellInjectionSource:
        TakeText(fields_.text);
        return TakeText(fields_.other_text);
      case Code::kSetWellInjectionComposition:
        TakeTexts(Count(), fields_.texts);
        return TakeNumberGroups();
      default:
        return;
    }
  }

 private:
  bool Holds(std::size_t size) {
    if (size > rest_.size()) fields_.past = true;
    return !fields_.past;
  }
  template <class T>
  void Take(T& value) {
    if (!Holds(sizeof(value))) return;
    std::memcpy(&value, rest_.data(), sizeof(value));
    rest_.remove_prefix(sizeof(value));
  }
  int Count() {
    std::int32_t count = 0;
    Take(count);
    return count;
  }
  void TakeFlag() {
    std::uint8_t byte = 0;
    Take(byte);
    fields_.flag = byte != 0;
  }
  void TakeText(std::string& text) {
    const auto size = static_cast<std::size_t>(std::max(Count(), 0));
    if (!Holds(size)) return;
    const std::string_view whole = rest_.substr(0, size);
    text = whole.substr(0, whole.find('\0'));
    rest_.remove_prefix(size);
  }
  void TakeTexts(int n, Texts& texts) {
    for (int i = 0; i < n && !fields_.past; ++i) TakeText(texts.emplace_back());
  }
  void TakeNumbers(int n, Numbers& numbers) {
    const auto count = static_cast<std::size_t>(std::max(n, 0));
    if (!Holds(count * sizeof(double))) return;
    numbers.resize(count);
    if (count > 0) std::memcpy(numbers.data(), rest_.data(), count * sizeof(double));
    rest_.remove_prefix(count * sizeof(double));
  }
  void TakeNumberGroups() {
    for (int g = Count(); g > 0 && !fields_.past; --g) {
      TakeNumbers(Count(), fields_.number_groups.emplace_back());
    }
  }

  std::string_view rest_;
  Fields& fields_;
};

// Keeps what it was called with and answers with records of the given number.
class Stub : public ConnectorBase {
 public:
  enum class Failure { kNone, kRuntime, kOther };

  void Begin(std::size_t records, Failure failure) {
    called = Fields();
    calls = 0;
    records_ = records;
    failure_ = failure;
  }

  Fields called;
  int calls = 0;

  void Connect(const std::string& host, int port, int timeout) override {
    PROMISE(host == "host" && port == 9001 && timeout == 60);
    Call();
  }
  int Shutdown() override {
    Call();
    return 0;
  }
  double GetVersion() override {
    Call();
    return 2017.2;
  }
  bool IsMetric() override {
    Call();
    return true;
  }
  double GetTimeDays() override {
    Call();
    return 31;
  }
  void GetDate(int& day, int& month, int& year) override {
    Call();
    day = month = year = 7;
  }
  void GetStartDate(int& day, int& month, int& year) override { GetDate(day, month, year); }
  bool IsCompositional() override {
    Call();
    return false;
  }
  void GetStaticComposition(EOS* eos) override {
    Call();
    eos->name = "PR";
    eos->components.assign(records_, "C1");
    eos->parachor.assign(records_, 1);
  }
  int SetWellInjectionSource(const std::string& well, const std::string& source) override {
    called.text = well;
    called.other_text = source;
    Call();
    return -1;
  }
  void SetWellInjectionComposition(const Texts& sources,
                                   const std::vector<Numbers>& compositions) override {
    called.texts = sources;
    called.number_groups = compositions;
    Call();
  }
  void GetWellStatus(std::vector<StaticWellDef>& wells) override {
    Call();
    wells.assign(records_, {"P1", "PRODUCER", "OPEN"});
  }
  void GetWellVariables(const std::string& well, const Texts& properties,
                        Numbers& values) override {
    called.text = well;
    called.texts = properties;
    Call();
    values.assign(records_, 1);
  }
  void GetWellOpPtData(const Texts& wells, std::vector<DynWellOpPt>& points) override {
    called.texts = wells;
    Call();
    points.resize(records_);
  }
  int GetWellIPRData(int ncomponents, const Texts& wells, bool bottom_hole, double skewness,
                     std::vector<DynWellIPR>& tables) override {
    called.count = ncomponents;
    called.texts = wells;
    called.flag = bottom_hole;
    called.number = skewness;
    Call();
    tables.resize(records_);
    return 10;
  }
  void GetWellConstraints() override { Call(); }
  void GetWellStatus() override { Call(); }
  void SetWellUptime(const Texts& wells, const Numbers& fractions) override {
    called.texts = wells;
    called.numbers = fractions;
    Call();
  }
  void SetWellStatus(const Texts& wells, const Texts& statuses) override {
    called.texts = wells;
    called.other_texts = statuses;
    Call();
  }
  void SetWellConstraints(const Texts& wells, const std::vector<Texts>& properties,
                          const std::vector<Numbers>& values) override {
    called.texts = wells;
    called.text_groups = properties;
    called.number_groups = values;
    Call();
  }
  void Newton() override { Call(); }
  void RunUntil(double time) override {
    called.number = time;
    Call();
  }
  bool SimulationEnded() override {
    Call();
    return false;
  }

 private:
  void Call() {
    ++calls;
    if (failure_ == Failure::kRuntime) throw std::runtime_error("stub");
    if (failure_ == Failure::kOther) throw std::invalid_argument("stub");
  }

  std::size_t records_ = 0;
  Failure failure_ = Failure::kNone;
};

bool IsKnown(unsigned code) {
  return (code >= Code::kConnect && code <= Code::kGetStartDate) || code == Code::kShutdown;
}

// The code by which the records of a request for wells are asked for.
Code RecordCode(unsigned code) {
  return code == Code::kGetWellData ? Code::kWellDataRecord : Code::kWellIPRRecord;
}

// How many of the frames that the master has sent are sub-requests of this code, up to the first
// that is not.
std::size_t SubRequests(std::string_view bytes, std::uint32_t code, std::size_t wanted) {
  std::size_t good = 0;
  while (good < wanted) {
    std::int32_t length = 0;
    if (bytes.size() < sizeof(length)) return good;
    std::memcpy(&length, bytes.data(), sizeof(length));
    bytes.remove_prefix(sizeof(length));
    if (length <= 0 || length > master_link::kMaxFrame) return good;
    const auto size = static_cast<std::size_t>(length);
    if (bytes.size() < size) return good;
    std::uint32_t received = 0;  // a shorter body ends in zeros
    std::memcpy(&received, bytes.data(), std::min(size, sizeof(received)));
    if (received != code) return good;
    bytes.remove_prefix(size);
    ++good;
  }
  return good;
}

// Takes the replies apart: the first has `code`, the others `sub_code`. Their number.
std::size_t Replies(std::string_view sent, std::uint32_t code, std::uint32_t sub_code) {
  std::size_t replies = 0;
  while (!sent.empty()) {
    std::uint32_t head[2] = {};
    std::uint32_t acknowledgement = 1;
    PROMISE(sent.size() >= sizeof(head) + sizeof(acknowledgement));
    std::memcpy(head, sent.data(), sizeof(head));
    sent.remove_prefix(sizeof(head[0]));
    PROMISE(head[0] <= sent.size() && head[0] >= sizeof(head[1]) + sizeof(acknowledgement));
    PROMISE(head[1] == (replies == 0 ? code : sub_code));
    std::memcpy(&acknowledgement, sent.data() + head[0] - sizeof(acknowledgement),
                sizeof(acknowledgement));
    PROMISE(acknowledgement == 0);
    sent.remove_prefix(head[0]);
    ++replies;
  }
  return replies;
}

struct Outcome {
  std::size_t replies = 0;
  std::string error;
};

Outcome Expected(unsigned code, const Fields& fields, std::size_t records, Stub::Failure failure,
                 std::string_view sub_requests) {
  if (!IsKnown(code)) return {};
  if (fields.past || failure == Stub::Failure::kOther) return {0, "Unknown exception"};
  if (failure == Stub::Failure::kRuntime) {
    return {0, "Exception returned from VK controller: stub"};
  }
  if (code != Code::kGetWellData && code != Code::kGetWellIPRData) return {1, {}};
  const std::string routine = code == Code::kGetWellData ? "VK_GETWELLDATA" : "VK_GETWELLIPRDATA";
  const std::string comms = "Exception returned from Corvane comms: ";
  if (records != fields.texts.size()) {
    return {0, comms + "Discrepancy returned in well data from Corvane: well count in routine " +
                   routine};
  }
  const std::size_t served = SubRequests(sub_requests, RecordCode(code), records);
  if (served == records) return {1 + records, {}};
  return {1 + served, comms + "Unexpected data received from Corvane, routine " + routine + "_SUB"};
}

// A receive buffer that holds `fields`. After them it is cleared for a while, and then holds what
// earlier frames have left.
const unsigned char* ReceiveBuffer(std::string_view fields) {
  constexpr std::size_t cleared = 64;
  static std::vector<unsigned char> buffer(kFields, 0x7f);
  static std::size_t used = 0;
  std::fill_n(buffer.begin(), used, 0x7f);
  if (!fields.empty()) std::memcpy(buffer.data(), fields.data(), fields.size());
  used = std::min(fields.size() + cleared, kFields);
  std::fill(buffer.begin() + static_cast<std::ptrdiff_t>(fields.size()),
            buffer.begin() + static_cast<std::ptrdiff_t>(used), 0);
  return buffer.data();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static auto* stub = new Stub;
  static Socket master(-1);
  static flog log("", true);
  static ConnectorSocketWrapper controller(std::unique_ptr<ConnectorBase>(stub), "host", &master,
                                           9001, 60, log);
  Input input(data, size);
  const std::uint8_t selector = input.Byte();
  unsigned code = selector % 32;  // 0 and some others nobody knows
  if (code == 31) code = Code::kShutdown;
  if (code == 30) code = Code::kWellDataRecord;
  const std::uint8_t mode = input.Byte();
  std::size_t records = mode & 7;
  const unsigned trouble = mode >> 3;
  Stub::Failure failure = Stub::Failure::kNone;
  if (trouble == 31) failure = Stub::Failure::kRuntime;
  if (trouble == 30) failure = Stub::Failure::kOther;
  const bool gone = trouble == 29;
  const std::string_view body = input.Take(std::min(input.Short(), kFields));
  const std::string_view frames = input.Rest();

  const unsigned char* buffer = ReceiveBuffer(body);
  Fields fields;
  Reader({reinterpret_cast<const char*>(buffer), kFields}, fields).Read(code);
  // Most connectors answer for the wells that they were asked for.
  if (records == 7) records = std::min<std::size_t>(fields.texts.size(), 64);
  const Outcome expected = Expected(code, fields, records, failure, frames);

  stub->Begin(records, failure);
  memory_link.Begin(frames);
  if (failure == Stub::Failure::kNone) memory_link.room = MemoryLink::Room(trouble);
  if (gone) memory_link.send_error = EPIPE;
  std::string error;
  const int result = controller.Handle(code, buffer, error);
  PROMISE(result == (expected.error.empty() ? 0 : 1));
  PROMISE(error == expected.error);
  // That nobody gets a reply is only noticed at the next receive.
  const std::size_t replies = Replies(memory_link.sent, code, RecordCode(code));
  PROMISE(replies == (gone ? 0 : expected.replies));
  PROMISE(!MemoryLink::HoldsChildrenBack());
  PROMISE(stub->calls == (IsKnown(code) && !fields.past ? 1 : 0));
  PROMISE(stub->calls == 0 || stub->called == fields);
  return 0;
}
