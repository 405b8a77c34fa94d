#include "tools/vkmaster/report/report.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fstream>
#include <map>
#include <string_view>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tools/vkmaster/report/assets.h"
#include "tools/vkmaster/report/block.h"
#include "tools/vkmaster/system/system.h"
#include "tools/vkmaster/text/sha256.h"
#include "tools/vkmaster/text/usage_error.h"
#include "tools/vkmaster/text/whole_file.h"

namespace vkmaster {
namespace {

using Json = nlohmann::ordered_json;

// JSON for the inside of a script element. A browser looks for the element's end, and for comments,
// before it looks for strings.
std::string ForScript(const Json& json) {
  const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
  std::string safe;
  safe.reserve(text.size());
  for (const char c : text) {
    if (c == '<' || c == '>' || c == '&') {
      safe += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    } else {
      safe += c;
    }
  }
  return safe;
}

// A block of data that no browser takes for a program.
std::string DataElement(const std::string& id, const std::string& content) {
  return "<script type=\"text/plain\" id=\"" + id + "\">" + content + "</script>\n";
}

std::string HashOf(std::string_view text) {
  const std::string digits = Sha256(std::string(text));
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return "'sha256-" + Base64(bytes) + "'";
}

// Nothing but the page's own scripts and styles, whatever the names of wells hold.
std::string Policy() {
  return fmt::format(
      "default-src 'none'; script-src {} {}; style-src {} {}; base-uri 'none'; form-action 'none'",
      HashOf(kUplotJs), HashOf(kReportJs), HashOf(kUplotCss), HashOf(kReportCss));
}

Json ToJson(const std::vector<Heading>& headings) {
  Json list = Json::array();
  for (const Heading& heading : headings) {
    list.push_back({{"id", heading.id}, {"unit", heading.unit}});
  }
  return list;
}

std::vector<std::size_t> RatesOf(const Results& results) {
  std::vector<std::size_t> rates;
  for (std::size_t i = 0; i < results.quantities.size(); ++i) {
    if (IsRate(results.quantities[i].id)) rates.push_back(i);
  }
  return rates;
}

Json WellsOf(const Results& results) {
  const std::vector<std::size_t> rates = RatesOf(results);
  const bool is_last = !results.days.empty() && results.days.back() == LastDay(results);
  const bool covers_stops = CoversStops(results);
  Json wells = Json::array();
  for (const WellResults& well : results.wells) {
    Json last = Json::array();
    for (const std::vector<float>& values : well.values) {
      last.push_back(is_last ? Json(values.back()) : Json(nullptr));
    }
    Json totals = nullptr;
    if (covers_stops && IsWithoutGaps(results, well)) {
      totals = Json::array();
      for (const std::size_t rate : rates) {
        totals.push_back(static_cast<float>(AddedUp(results.days, well.values[rate])));
      }
    }
    wells.push_back({{"name", well.name},
                     {"type", well.type},
                     {"status", well.status},
                     {"last", std::move(last)},
                     {"totals", std::move(totals)}});
  }
  return wells;
}

// Null when the field has not that rate.
const std::vector<float>* FieldRates(const Results& results, std::size_t rate) {
  for (std::size_t i = 0; i < results.field.size(); ++i) {
    if (results.field_quantities[i].id == results.quantities[rate].id) return &results.field[i];
  }
  return nullptr;
}

// The rates that no well ever had.
Json IdleOf(const Results& results) {
  Json idle = Json::array();
  const auto flows = [](const std::vector<float>& rates) {
    return std::any_of(rates.begin(), rates.end(), [](float rate) { return rate > 0 || rate < 0; });
  };
  for (const std::size_t rate : RatesOf(results)) {
    const std::vector<float>* field = FieldRates(results, rate);
    const bool any = (field != nullptr && flows(*field)) ||
                     std::any_of(results.wells.begin(), results.wells.end(),
                                 [&](const auto& well) { return flows(well.values[rate]); });
    if (!any) idle.push_back(results.quantities[rate].id);
  }
  return idle;
}

// What each rate adds up to. The sums over wells are those of the wells' totals, which have more
// digits than the field's rates.
Json FieldTotals(const Results& results, const std::vector<const WellResults*>& wells) {
  if (!CoversStops(results)) return nullptr;
  Json totals = Json::array();
  for (const std::size_t rate : RatesOf(results)) {
    double total = std::nan("");  // stays where the rate is not known
    if (results.field_recorded) {
      const std::vector<float>* field = FieldRates(results, rate);
      if (field != nullptr) total = AddedUp(results.days, *field);
    } else {
      for (const WellResults* well : wells) {
        const double own = AddedUp(results.days, well->values[rate]);
        if (!std::isnan(own)) total = std::isnan(total) ? own : total + own;
      }
    }
    totals.push_back(total);
  }
  return totals;
}

Json FieldOf(const Results& results) {
  if (results.field.empty()) return nullptr;
  Json ids = Json::array();
  for (const Heading& heading : results.field_quantities) ids.push_back(heading.id);
  const std::vector<const WellResults*> wells = WellsWithoutGaps(results);
  return {{"from", results.field_recorded ? "field.csv" : "wells"},
          {"wells", wells.size()},
          {"totals", FieldTotals(results, wells)},
          {"quantities", std::move(ids)}};
}

Json StopsOf(const Results& results) {
  Json stops{{"days", Json::array()}, {"elapsed", Json::array()}, {"computing", Json::array()}};
  for (const ResultStop& stop : results.stops) {
    stops["days"].push_back(stop.day);
    stops["elapsed"].push_back(stop.elapsed);
    stops["computing"].push_back(stop.computing);
  }
  return stops;
}

Json InflowOf(const Results& results) {
  Json list = Json::array();
  for (const WellInflow& inflow : results.inflow) {
    Json tables = Json::array();
    for (const WellInflow::Part& table : inflow.tables) {
      tables.push_back({{"day", table.day}, {"points", table.points}});
    }
    list.push_back({{"well", inflow.well}, {"tables", std::move(tables)}});
  }
  return list;
}

Json MetaOf(const Results& results, std::optional<std::chrono::seconds> again) {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  Json meta;
  meta["run"] = results.run.empty() ? Json(nullptr) : Json::parse(results.run, nullptr, false);
  meta["directory"] = results.directory;
  meta["version"] = JOBMILL_VERSION;
  meta["uplot"] = kUplotVersion;
  meta["written"] = fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(now));
  meta["live"] = again ? Json{{"seconds", again->count()}} : Json(nullptr);
  meta["start"] = results.start_date.empty() ? Json(nullptr) : Json(results.start_date);
  meta["days"] = results.days;
  meta["last"] = LastDay(results);
  meta["quantities"] = ToJson(results.quantities);
  meta["rates"] = Json::array();
  for (const std::size_t rate : RatesOf(results)) {
    meta["rates"].push_back(results.quantities[rate].id);
  }
  meta["idle"] = IdleOf(results);
  meta["field"] = FieldOf(results);
  meta["wells"] = WellsOf(results);
  meta["stops"] = StopsOf(results);
  meta["events"] = Json::array();
  for (const ResultEvent& event : results.events) {
    meta["events"].push_back({{"day", event.day}, {"command", event.command}});
  }
  meta["inflow_columns"] = ToJson(results.inflow_columns);
  meta["inflow"] = InflowOf(results);
  return meta;
}

// What the page needs at once. The wells' values come after the script, which need not wait for
// them.
std::string DataOf(const Results& results, std::optional<std::chrono::seconds> again) {
  std::string data = DataElement("meta", ForScript(MetaOf(results, again)));
  if (!results.field.empty()) data += DataElement("field", Packed(results.field));
  return data;
}

void WriteBlocks(const Results& results, WholeFile& file) {
  for (std::size_t i = 0; i < results.wells.size(); ++i) {
    file.Write(DataElement(fmt::format("w{}", i), Packed(results.wells[i].values)));
  }
  for (std::size_t i = 0; i < results.inflow.size(); ++i) {
    file.Write(DataElement(fmt::format("i{}", i), Packed(results.inflow[i].values)));
  }
}

}  // namespace

bool IsReport(const std::string& file) {
  std::ifstream present(PathOf(file), std::ios::binary);
  std::string head(512, '\0');
  present.read(head.data(), static_cast<std::streamsize>(head.size()));
  return present.gcount() == 0 || head.find("content=\"vkmaster report\"") != head.npos;
}

void CheckReplaceable(const std::string& file) {
  const std::string extension = PathOf(file).extension().string();
  if (extension == ".csv" || extension == ".json") {
    throw UsageError(fmt::format("'{}' is no name for a page: results have such names", file));
  }
  if (IsReport(file)) return;
  throw UsageError(
      fmt::format("'{}' is there already and is no report: it is left as it is", file));
}

void WriteReport(const Results& results, const std::string& file,
                 std::optional<std::chrono::seconds> again) {
  const std::map<std::string_view, std::string> texts{
      {"policy", Policy()},   {"uplot_css", kUplotCss},
      {"style", kReportCss},  {"uplot_licence", kUplotLicence},
      {"uplot_js", kUplotJs}, {"data", DataOf(results, again)},
      {"script", kReportJs}};
  CheckReplaceable(file);
  WholeFile page(file);
  std::string_view rest = kReportHtml;
  while (true) {
    const std::size_t begin = rest.find('@');
    const std::size_t end = begin == rest.npos ? rest.npos : rest.find('@', begin + 1);
    page.Write(rest.substr(0, begin));
    if (end == rest.npos) break;
    const std::string_view name = rest.substr(begin + 1, end - begin - 1);
    if (name == "blocks") {
      WriteBlocks(results, page);
    } else {
      page.Write(texts.at(name));
    }
    rest = rest.substr(end + 1);
  }
  page.PutInPlace();
}

}  // namespace vkmaster
