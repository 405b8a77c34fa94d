#include "tools/vkmaster/commands/advance.h"

#include <algorithm>

#include <fmt/format.h>

#include "tools/vkmaster/session/units.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

const char* const kUntilUsage = "until TARGET [step STEP] [rates]";

void TakeOptions(const Words& arguments, std::size_t at, AdvanceRequest& request) {
  while (at < arguments.size()) {
    if (arguments[at] == "rates") {
      request.rates = true;
      ++at;
    } else if (arguments[at] == "step" && at + 1 < arguments.size()) {
      request.step = ParseStep(arguments[at + 1]);
      at += 2;
    } else {
      throw UsageError("'" + arguments[at] + "' is not understood here: " + kUntilUsage);
    }
  }
}

// Adds the sums over all wells, and returns them.
Rates AddSums(Session& session, Result& result) {
  const Units& units = UnitsOf(session.Metric());
  std::vector<std::string> names;
  for (const master::WellStatus& well : session.Wells()) names.push_back(well.name);
  const Rates sums = SumOf(session.run().GetWellData(names));
  const std::string& liquid = units.liquid_rate;
  result.fields.insert(result.fields.end(),
                       {{"oil_rate", "oil", sums[0], liquid},
                        {"water_rate", "water", sums[1], liquid},
                        {"gas_rate", "gas", sums[2], units.gas_rate},
                        {"water_injection_rate", "water in", sums[3], liquid},
                        {"gas_injection_rate", "gas in", sums[4], units.gas_rate}});
  return sums;
}

void NoteWhatTotalsLack(Totals& totals, bool none, Result& result) {
  const double since = totals.since.value_or(0);
  if (none) {
    result.notes.push_back(
        fmt::format("The totals add up from here, day {:.6g}, on: field was not asked for before. "
                    "Ask for it often, each rate counts for the days since the time before",
                    since));
  } else if (since > 0 && !totals.told) {
    result.notes.push_back(fmt::format("The totals count from day {:.6g} on", since));
  }
  totals.told = true;
  if (totals.longest_skip > 0) {
    result.notes.push_back(fmt::format(
        "The totals take the rates of day {:.6g} for all {:.6g} days before it, since no others "
        "were read. until TARGET step monthly rates reads them in between",
        totals.end_of_skip, totals.longest_skip));
  }
}

}  // namespace

void RefuseYear(const Target& target, Session& session) {
  if (MayBeYear(target)) RefuseYear(target, session.StartDate());
}

double DaysOf(const Target& target, Session& session) {
  RefuseYear(target, session);
  switch (target.kind) {
    case Target::Kind::kDays:
      return target.days;
    case Target::Kind::kRelative:
      return session.TimeDays() + target.days;
    case Target::Kind::kDate:
      break;
  }
  const double days = DaysBetween(session.StartDate(), target.date);
  if (days < 0) {
    throw UsageError(FormatDate(target.date) + " is before the start of the run, " +
                     FormatDate(session.StartDate()));
  }
  return days;
}

AdvanceRequest ParseUntil(const Words& arguments) {
  if (arguments.empty()) throw UsageError(std::string("Until when? ") + kUntilUsage);
  AdvanceRequest request;
  request.target = ParseTarget(arguments[0]);
  TakeOptions(arguments, 1, request);
  return request;
}

AdvanceRequest ParseEvery(const Words& arguments) {
  if (arguments.size() < 3 || arguments[1] != "until") {
    throw UsageError("Not understood: every STEP until TARGET [rates]");
  }
  AdvanceRequest request;
  request.step = ParseStep(arguments[0]);
  request.target = ParseTarget(arguments[2]);
  TakeOptions(arguments, 3, request);
  return request;
}

void CheckOrder(const std::vector<Command>& commands, Session* session) {
  const bool dates = std::any_of(commands.begin(), commands.end(), [](const Command& command) {
    return command.target && command.target->kind == Target::Kind::kDate;
  });
  // Days alone have been compared before the launch.
  if (session != nullptr && !dates) return;
  std::optional<Target> reached = Target{};
  if (session != nullptr) reached->days = session->TimeDays();
  for (const Command& command : commands) {
    if (!command.target) continue;
    Target next = *command.target;
    if (session != nullptr && next.kind == Target::Kind::kDate) {
      next = {Target::Kind::kDays, DaysOf(next, *session), {}};
    }
    if (next.kind == Target::Kind::kRelative) {
      // Days from a date on, without the run's start: what comes next is compared with nothing.
      const bool known = reached && reached->kind == Target::Kind::kDays;
      reached = known ? std::optional(Target{Target::Kind::kDays, reached->days + next.days, {}})
                      : std::nullopt;
      continue;
    }
    const auto ahead = reached ? DaysBetween(*reached, next) : std::nullopt;
    if (ahead && *ahead < kSameTime) {
      throw UsageError(
          fmt::format("{}: the run is at {} already then", command.text, FormatTarget(*reached)));
    }
    reached = next;
  }
}

Result FieldResult(Session& session) {
  Result result{.command = "field"};
  const Rates rates = AddSums(session, result);
  Totals& totals = session.totals();
  totals.Add(session.TimeDays(), rates);
  // At the start of the run the totals are 0. The first ones later are empty: they are not known.
  const bool none = totals.up_to > 0 && totals.up_to == totals.since;
  for (std::size_t i = 0; i < rates.size(); ++i) {
    const Field rate = result.fields[i];
    const std::string key = rate.key.substr(0, rate.key.find("_rate")) + "_total";
    const std::string unit = rate.unit.substr(0, rate.unit.find("/d"));
    result.fields.push_back({key, rate.label + " total", {}, unit});
    if (!none) result.fields.back().value = totals.sums[i];
  }
  NoteWhatTotalsLack(totals, none, result);
  return result;
}

Result StateRow(Session& session, const std::string& command, bool rates) {
  Result result{.command = command, .row = true};
  result.fields.push_back({"time_days", "day", session.TimeDays(), ""});
  result.fields.push_back({"date", "date", FormatDate(session.run().GetDate()), ""});
  result.fields.push_back({"ended", "ended", session.Ended(), ""});
  if (rates) session.totals().Add(session.last_days(), AddSums(session, result));
  return result;
}

std::string EndedBefore(const Session& session, double target) {
  return fmt::format("The simulation ended at day {:.6g}, before day {:.6g}", session.last_days(),
                     target);
}

void Advance(Context& context, const AdvanceRequest& request) {
  Session& session = context.session;
  RefuseYear(request.target, session);
  if (!session.first_step_done()) session.FirstStep();
  double now = session.TimeDays();
  const double target = DaysOf(request.target, session);
  if (target - now < kSameTime) {
    throw UsageError(
        fmt::format("The run is at day {:.6g} already, it cannot go to day {:.6g}", now, target));
  }
  if (session.has_ended()) {
    // No failure: the commands after it show the state in which the simulation ended.
    Result row = StateRow(session, "until", request.rates);
    row.notes.push_back(EndedBefore(session, target));
    context.output.Write(row);
    return;
  }
  const std::optional<Step> step = request.step ? request.step : context.step;
  const master::Date start = step ? session.StartDate() : master::Date{};
  if (request.rates) session.totals().Begin(now);
  if (!request.rates || !step) session.totals().skips = true;

  context.progress.BeginAdvance(now, target);
  while (target - now >= kSameTime) {
    const double next = step ? EndOfStep(*step, start, now) : target;
    now = target - next < kSameTime ? target : next;
    session.RunUntil(now);
    Result row = StateRow(session, "until", request.rates);
    if (session.has_ended() && target - session.last_days() >= kSameTime) {
      row.notes.push_back(EndedBefore(session, target));
    }
    const bool stop = context.stop_asked && context.stop_asked();
    if (stop && !session.has_ended() && target - now >= kSameTime) {
      row.notes.push_back(
          fmt::format("Stopped at day {:.6g}, before day {:.6g}", session.last_days(), target));
    }
    context.progress.Reached(session.last_days());
    context.output.Write(row);
    if (session.has_ended() || stop) break;
  }
  context.progress.End();
}

}  // namespace vkmaster
