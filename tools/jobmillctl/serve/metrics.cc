#include "tools/jobmillctl/serve/metrics.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "inspect/ending.h"
#include "inspect/runs.h"
#include "tools/jobmillctl/findings.h"
#include "tools/jobmillctl/measures.h"

namespace jobmillctl::serve {
namespace {

using inspect::RunState;

constexpr double kNotKnown = std::numeric_limits<double>::quiet_NaN();

class Writer {
 public:
  void Begin(std::string_view name, std::string_view type, std::string_view help) {
    name_ = name;
    text_ += fmt::format("# HELP jobmill_{0} {2}\n# TYPE jobmill_{0} {1}\n", name, type, help);
  }
  void Gauge(std::string_view name, std::string_view help, double value) {
    Begin(name, "gauge", help);
    Sample("", value);
  }
  void Counter(std::string_view name, std::string_view help, double value) {
    Begin(name, "counter", help);
    Sample("", value);
  }

  // `labels` are those of the program alone: nothing in them has to be escaped.
  void Sample(const std::string& labels, double value) {
    text_ += fmt::format("jobmill_{}{} {}\n", name_, labels.empty() ? "" : "{" + labels + "}",
                         std::isnan(value) ? "NaN" : fmt::format("{}", value));
  }

  std::string Take() { return std::move(text_); }

 private:
  std::string_view name_;
  std::string text_;
};

std::string Label(const char* name, std::string_view value) {
  return fmt::format("{}=\"{}\"", name, value);
}

// Adds up a value over the entries, or joins it by another `choose`. Entries that lack it are left
// out; NaN when all do.
double Over(const Json& entries, const std::function<double(const Json&)>& value,
            const std::function<double(double, double)>& choose) {
  double result = kNotKnown;
  for (const Json& entry : entries) {
    const double next = value(entry);
    result = std::isnan(result) ? next : std::isnan(next) ? result : choose(result, next);
  }
  return result;
}

double Over(const Json& entries, const char* field,
            const std::function<double(double, double)>& choose = std::plus()) {
  const auto value = [field](const Json& entry) {
    return NumberOf(entry, field).value_or(kNotKnown);
  };
  return Over(entries, value, choose);
}

void WriteCollector(const View& view, Writer& writer) {
  writer.Begin("build_info", "gauge", "The version of the status server; always 1.");
  writer.Sample(Label("version", JOBMILL_VERSION), 1);
  writer.Gauge("collector_up",
               "1 when the collector's last look at the runs succeeded and was not long ago.",
               IsCollected(view) ? 1 : 0);
  const Json& runs = At(view.snapshot, {"runs"});
  const bool known = At(runs, {"document"}).is_object();
  writer.Gauge("snapshot_timestamp_seconds", "When the runs were looked at, since 1970.",
               known ? runs.at("time").get<double>() : kNotKnown);
  writer.Gauge("snapshot_age_seconds", "How long ago the runs were looked at.",
               known ? AgeOf(view, "runs") : kNotKnown);
  writer.Gauge("snapshot_duration_seconds", "How long the collector's last look at the runs took.",
               known ? runs.at("took_seconds").get<double>() : kNotKnown);
}

void WriteRuns(const Json& status, Writer& writer) {
  const bool known = status.is_object();
  writer.Gauge("daemons", "Daemons that run on this machine.",
               known ? static_cast<double>(status.at("daemons").size()) : kNotKnown);
  const auto of_states = [&](const std::function<double(const std::vector<const Json*>&)>& value) {
    for (const RunState state : kStates) {
      std::vector<const Json*> runs;
      for (const Json& run : At(status, {"runs"})) {
        if (run.at("state") == Name(state)) runs.push_back(&run);
      }
      writer.Sample(Label("state", Name(state)), known ? value(runs) : kNotKnown);
    }
  };
  writer.Begin("runs", "gauge", "Connections of masters and what came of them, by state.");
  of_states([](const std::vector<const Json*>& runs) { return static_cast<double>(runs.size()); });
  writer.Begin(
      "oldest_wait_seconds", "gauge",
      "How long the run that has been in a state for the longest has been in it; 0 without "
      "one.");
  of_states([](const std::vector<const Json*>& runs) {
    double oldest = 0;
    for (const Json* run : runs) {
      oldest = std::max(oldest, NumberOf(*run, "state_seconds").value_or(0));
    }
    return oldest;
  });
}

void WriteCounts(const Json& measures, Writer& writer) {
  const auto value = [&](const char* list, const char* entry) {
    return measures.is_object() ? measures.at(list).at(entry).get<double>() : kNotKnown;
  };
  writer.Begin("run_seconds_total", "counter",
               "Time that runs have been in a state, all of them together.");
  for (const RunState state : kStates) {
    writer.Sample(Label("state", Name(state)), value("run_seconds", Name(state)));
  }
  writer.Counter("requests_total", "Requests of masters, as far as comms logs tell them.",
                 measures.is_object() ? measures.at("requests").get<double>() : kNotKnown);
  writer.Begin("launches_total", "counter",
               "Launches as the logs of the daemons tell them, by result.");
  for (const char* result : kLaunchResults) {
    writer.Sample(Label("result", result), value("launches", result));
  }
  writer.Begin("refusals_total", "counter",
               "Masters that were refused, as the logs of the daemons tell it, by reason.");
  for (const char* reason : kRefusalReasons) {
    writer.Sample(Label("reason", reason), value("refusals", reason));
  }
}

void WriteLimits(const Json& measures, Writer& writer) {
  const Json& daemons = At(measures, {"daemons"});
  writer.Gauge("comms_ports", "Comms ports of all daemons.", Over(daemons, "comms_ports"));
  writer.Gauge("comms_ports_free",
               "Comms ports of all daemons that no run has and nobody listens on.",
               Over(daemons, "comms_ports_free"));
  const auto used = [](const Json& daemon) {
    return NumberOf(daemon, "descriptors").value_or(kNotKnown) /
           NumberOf(daemon, "descriptors_limit").value_or(kNotKnown);
  };
  writer.Gauge(
      "descriptors_used_ratio",
      "Descriptors that a daemon has open, of those that it may have; of the worst daemon.",
      Over(daemons, used, fmax));
  writer.Gauge("log_size_bytes", "Size of the logs of the daemons, without rotated ones.",
               Over(daemons, "log_bytes"));
  writer.Gauge("log_free_bytes", "Room on the file system of a daemon's log; of the fullest one.",
               Over(daemons, "log_free_bytes", fmin));
}

void WriteGates(const Json& measures, Writer& writer) {
  const Json& gates = At(measures, {"gates"});
  writer.Gauge("gates", "Serving gates that run on this machine.",
               gates.is_array() ? static_cast<double>(gates.size()) : kNotKnown);
  writer.Gauge("gate_links", "Links of all gates, broken ones included.", Over(gates, "links"));
  writer.Gauge("gate_links_broken", "Links that are broken and may be resumed.",
               Over(gates, "broken"));
  writer.Gauge("gate_links_limit", "Links that all gates may have.", Over(gates, "most_links"));
  writer.Gauge("gate_arriving", "Connections that have not proven anything yet.",
               Over(gates, "arriving"));
  writer.Begin("gate_events_total", "counter",
               "What has happened at the gates since they were started.");
  for (const char* what : kGateCounts) {
    const auto count = [what](const Json& gate) {
      return NumberOf(At(gate, {"counts"}), what).value_or(kNotKnown);
    };
    writer.Sample(Label("event", what), Over(gates, count, std::plus()));
  }
  writer.Gauge("gate_revocation_list_expiry_timestamp_seconds",
               "When the first list of revoked certificates becomes too old, since 1970.",
               Over(gates, "list_expires", fmin));
}

void WriteEndings(const View& view, Writer& writer) {
  constexpr double kDay = 86400;
  const Json& runs = At(view.snapshot, {"history", "document", "runs"});
  writer.Begin("recent_endings", "gauge",
               "Runs that began in the last 24 hours and have ended, by how they ended.");
  for (const inspect::Ending ending : inspect::kEndings) {
    if (ending == inspect::Ending::kNoRequest) continue;
    const auto is_meant = [&](const Json& run) {
      return TextOf(run, "ending") == Name(ending) &&
             TimeIn(At(run, {"connected"})).value_or(0) > view.now - kDay;
    };
    const auto count = std::count_if(runs.begin(), runs.end(), is_meant);
    writer.Sample(Label("ending", Name(ending)),
                  runs.is_array() ? static_cast<double>(count) : kNotKnown);
  }
}

void WriteFindings(const View& view, Writer& writer) {
  const Json& counts = At(view.snapshot, {"check", "document", "counts"});
  writer.Begin("check_findings", "gauge", "What is wrong with the configuration, by severity.");
  for (const inspect::Severity severity : kSeverities) {
    writer.Sample(Label("severity", Name(severity)),
                  counts.is_object() ? counts.at(Name(severity)).get<double>() : kNotKnown);
  }
  writer.Gauge("check_timestamp_seconds", "When the configuration was looked at, since 1970.",
               counts.is_object() ? view.snapshot.at("check").at("time").get<double>() : kNotKnown);
}

}  // namespace

std::string Metrics(const View& view) {
  Writer writer;
  WriteCollector(view, writer);
  WriteRuns(At(view.snapshot, {"runs", "document", "status"}), writer);
  const Json& measures = At(view.snapshot, {"runs", "document", "measures"});
  WriteCounts(measures, writer);
  WriteLimits(measures, writer);
  WriteGates(measures, writer);
  WriteEndings(view, writer);
  WriteFindings(view, writer);
  return writer.Take();
}

}  // namespace jobmillctl::serve
