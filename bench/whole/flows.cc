#include "bench/whole/flows.h"

#include <algorithm>

#include <fmt/format.h>

#include "net/master_link.h"
#include "tests/support/bytes.h"
#include "tests/support/wire_bytes.h"

namespace bench {
namespace {

using master_link::Code;
using wire::Cstr;
using wire::Doub;
using wire::Framed;
using wire::Inte;
using wire::Mess;
using Names = std::vector<std::string>;

std::string Request(Code code, const std::string& fields = {}) {
  return Frame(Image(static_cast<int>(code)) + fields);
}

std::string Texts(const Names& texts) {
  std::string bytes = Image(static_cast<int>(texts.size()));
  for (const std::string& text : texts) bytes += PackedText(text);
  return bytes;
}

std::string Ready() {
  return Framed(Mess("READY") + Mess("END"));
}

// The answer to a query.
std::string Reply(const std::string& headers) {
  return Framed(Mess("REPLY") + headers + Mess("END")) + Ready();
}

std::string Rows(const Names& items, const Names& wells) {
  std::string headers = Cstr("QITEMS", items);
  for (std::size_t i = 0; i < wells.size(); ++i) {
    std::vector<double> values;
    for (std::size_t item = 0; item < items.size(); ++item) {
      values.push_back(1000.0 + static_cast<double>(i) + static_cast<double>(item) / 8);
    }
    headers += Cstr("WELLNAME", {wells[i]}) + Doub("VALUES", values);
  }
  return Reply(headers);
}

std::string Words(const Names& items, const Names& wells, const Names& words) {
  std::string headers = Cstr("QITEMS", items);
  for (const std::string& well : wells) {
    headers += Cstr("WELLNAME", {well}) + Cstr("VALUES", words);
  }
  return Reply(headers);
}

std::string RunWide(const std::string& item, const std::string& value) {
  return Reply(Cstr("QITEM", {item}) + Cstr("VALUES", {value}));
}

// So many that a block takes some ten milliseconds, so few that real and minimal program meet the
// same moments of the machine.
int RepeatsFor(int wells) {
  return std::max(2, 1000 / std::max(1, wells));
}

void AddRecords(Flow& flow, Code code, int n) {
  for (int i = 0; i < n; ++i) flow.steps.push_back({Request(code), {}, {}});
}

// Asks for `wells`; the simulator answers for `answered`.
Flow WellDataOf(const Names& wells, const Names& answered) {
  const Names items = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                       "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "UPTIME_FRACTION",
                       "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};
  const int n = static_cast<int>(wells.size());
  Flow flow{fmt::format("GetWellData, {} wells", n), {}, RepeatsFor(n)};
  flow.steps.push_back({Request(Code::kGetWellData, Texts(wells)),
                        {{"", Rows(items, answered)}, {"", Words({"STATUS"}, answered, {"OPEN"})}},
                        {}});
  AddRecords(flow, Code::kWellDataRecord, n);
  return flow;
}

}  // namespace

Names WellNames(int n) {
  Names names;
  for (int i = 0; i < n; ++i) names.push_back(fmt::format("W{:05}", i));
  return names;
}

Flow TimeDays() {
  return {"GetTimeDays", {{Request(Code::kGetTimeDays), {}, {}}}, 500};
}

Flow TermFlag() {
  return {"GetTermFlag", {{Request(Code::kGetTermFlag), {}, {}}}, 500};
}

Flow Version() {
  return {"GetVersion",
          {{Request(Code::kGetVersion), {{"", RunWide("VK_VERSION", "2017.2")}}, {}}},
          300};
}

Flow RunUntil() {
  const std::string step =
      Framed(Mess("STEP") + Cstr("POSITION", {"BEGIN_NEWTON"}) + Doub("TIME", {31}) +
             Inte("DATE", {2026, 2, 1, 0, 0, 0}) + Mess("END"));
  return {"RunUntil", {{Request(Code::kRunUntil, Image(31.0)), {{"", step}}, {}}}, 300};
}

Flow Variables(int n) {
  const Names all = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                     "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "UPTIME_FRACTION",
                     "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};
  const Names items(all.begin(), all.begin() + n);
  const std::string well = WellNames(1).front();
  return {fmt::format("GetWellVariables, {}", n),
          {{Request(Code::kGetWellVariables, PackedText(well) + Texts(items)),
            {{"", Rows(items, {well})}},
            {}}},
          300};
}

Flow WellStatus(int n) {
  const std::string answer = Words({"TYPE", "STATUS"}, WellNames(n), {"PRODUCER", "OPEN"});
  return {fmt::format("GetWellStatus, {} wells", n),
          {{Request(Code::kGetWellStatus), {{"", answer}}, {}}},
          std::max(2, 20000 / std::max(100, n))};
}

Flow WellData(int n) {
  return WellDataOf(WellNames(n), WellNames(n));
}

Flow ReorderedWellData(int n) {
  Names answered = WellNames(n);
  std::reverse(answered.begin(), answered.end());
  return WellDataOf(WellNames(n), answered);
}

Flow InflowTables(int n) {
  const Names wells = WellNames(n);
  const Names items = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                       "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "TEMPERATURE",
                       "GAS_DENSITY",          "WATER_DENSITY",       "OIL_DENSITY",
                       "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};
  Flow flow{fmt::format("GetWellIPRData, {} wells", n), {}, RepeatsFor(n)};
  Step first;
  const std::string bottom_hole(1, '\1');
  first.request =
      Request(Code::kGetWellIPRData, Image(0) + Texts(wells) + bottom_hole + Image(1.0));
  first.exchanges = {{"", RunWide("UNIT_SYSTEM", "TOLMEN_METRIC")},
                     {"", Ready()},
                     {"", Words({"TYPE"}, wells, {"PRODUCER"})}};
  const std::string point = Rows(items, wells);
  for (int i = 0; i < 10; ++i) {
    first.exchanges.push_back({"", Ready()});
    first.exchanges.push_back({"", point});
  }
  flow.steps.push_back(first);
  AddRecords(flow, Code::kWellIPRRecord, n);
  return flow;
}

}  // namespace bench
