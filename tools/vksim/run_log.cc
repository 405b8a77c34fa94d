#include "tools/vksim/run_log.h"

#include <cstdio>

#include <fmt/format.h>

using simulator::FieldTotals;
using simulator::Quantity;
using simulator::Reservoir;

void RunLog::Line(const std::string& text) const {
  const std::string whole = text + '\n';
  std::fwrite(whole.data(), 1, whole.size(), stdout);
  std::fflush(stdout);
}

void RunLog::Summary(const Reservoir& run, const std::string& deck) const {
  const simulator::Deck& model = run.deck();
  int counts[3] = {0, 0, 0};
  for (const simulator::WellDeck& well : model.wells) ++counts[static_cast<int>(well.type)];
  const auto start = run.start_date();
  Line(fmt::format("Deck {}: {}", deck, model.title.empty() ? "(untitled)" : model.title));
  Line(fmt::format("  {}, {}, starts on {:04}-{:02}-{:02}, runs for {:g} days",
                   model.composition ? "compositional" : "black oil", model.units.name(), start[0],
                   start[1], start[2], model.end_time));
  Line(fmt::format("  {} producers, {} water injectors, {} gas injectors", counts[0], counts[1],
                   counts[2]));
  const simulator::Amounts held = run.in_place();
  Line(fmt::format("  in place: oil {:.4g} {}, gas {:.4g} {}, water {:.4g} {}; pressure {:.1f} {}",
                   held.oil, model.units.label(Quantity::kLiquid), held.gas,
                   model.units.label(Quantity::kGas), held.water,
                   model.units.label(Quantity::kLiquid), run.pressure(),
                   model.units.label(Quantity::kPressure)));
}

void RunLog::Heading(const Reservoir& run) const {
  const simulator::Units& units = run.deck().units;
  const std::string liquid = units.label(Quantity::kLiquid) + "/d";
  const std::string gas = units.label(Quantity::kGas) + "/d";
  Line(fmt::format("{:<19} {:>10} {:>10} {:>11} {:>11} {:>11} {:>11} {:>11}", "date", "time",
                   "pressure", "oil", "gas", "water", "water inj.", "gas inj."));
  Line(fmt::format("{:<19} {:>10} {:>10} {:>11} {:>11} {:>11} {:>11} {:>11}", "", "days",
                   units.label(Quantity::kPressure), liquid, gas, liquid, liquid, gas));
}

void RunLog::Step(const Reservoir& run) {
  if (!headed_) Heading(run);
  headed_ = true;
  const auto date = run.date();
  const FieldTotals rates = run.rates();
  Line(fmt::format(
      "{:04}-{:02}-{:02} {:02}:{:02}:{:02} {:>10.2f} {:>10.2f} {:>11.2f} {:>11.3f} {:>11.2f} "
      "{:>11.2f} {:>11.3f}",
      date[0], date[1], date[2], date[3], date[4], date[5], run.time(), run.pressure(), rates.oil,
      rates.gas, rates.water, rates.water_injection, rates.gas_injection));
  if (details_) Wells(run);
}

void RunLog::Wells(const Reservoir& run) const {
  const auto number = [&](std::size_t well, const char* name) {
    return run.value(well, *run.find_property(name));
  };
  for (std::size_t i = 0; i < run.well_count(); ++i) {
    Line(fmt::format("  {:<12} {:<5} bottom hole {:>9.2f} tubing head {:>9.2f} limited by {}",
                     run.well(i).deck().name, *run.text(i, "STATUS"),
                     number(i, "BOTTOM_HOLE_PRESSURE"), number(i, "TUBING_HEAD_PRESSURE"),
                     *run.text(i, "CONTROL_MODE")));
  }
}

void RunLog::Totals(const Reservoir& run) const {
  const FieldTotals& sum = run.cumulative();
  const simulator::Units& units = run.deck().units;
  const std::string liquid = units.label(Quantity::kLiquid);
  const std::string gas = units.label(Quantity::kGas);
  Line(
      fmt::format("Totals after {:g} days: oil {:.4g} {}, gas {:.4g} {}, water {:.4g} {}; "
                  "injected water {:.4g} {}, gas {:.4g} {}",
                  run.time(), sum.oil, liquid, sum.gas, gas, sum.water, liquid, sum.water_injection,
                  liquid, sum.gas_injection, gas));
}
