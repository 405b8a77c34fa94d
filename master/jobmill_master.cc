#include "master/jobmill_master.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <exception>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "master/alarm.h"
#include "master/errors.h"
#include "master/launch.h"
#include "master/run.h"

namespace {

using master::Clock;
using master::Deadline;

// What jobmill_run* points to. The name of the interface is left without a type, so that nothing of
// what changes in here is part of what is compared there.
struct Handle {
  // Before the channel, which watches it.
  master::Alarm alarm;

  std::string error;
  std::string host = "localhost";
  int port = 0;
  master::RunRequest request;
  int connect_wait = 10;
  int launch_wait = 0;

  std::optional<master::Launch> launch;
  std::optional<master::Run> run;
  std::string simulator_host;
  bool over = false;       // the link is of no use any more
  bool cancelled = false;  // an answer is still due
  std::chrono::milliseconds interval{0};
  void (*tick)(void*) = nullptr;
  void* user = nullptr;

  std::vector<master::WellStatus> wells;
  master::IPRTables inflow;
  master::EOSProps fluid;
};

Handle& HandleOf(jobmill_run* run) {
  return *reinterpret_cast<Handle*>(run);
}

/// A mistake of the caller.
class Usage : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

int CodeOf(Handle& run, const std::exception& error) {
  if (dynamic_cast<const Usage*>(&error) != nullptr ||
      dynamic_cast<const master::RequestTooLong*>(&error) != nullptr ||
      dynamic_cast<const std::invalid_argument*>(&error) != nullptr) {
    return JOBMILL_USAGE;
  }
  if (dynamic_cast<const master::Interrupted*>(&error) != nullptr) {
    run.cancelled = true;
    return JOBMILL_CANCELLED;
  }
  if (dynamic_cast<const master::TimedOut*>(&error) != nullptr) return JOBMILL_TIMED_OUT;
  run.over = true;
  if (dynamic_cast<const master::ConnectError*>(&error) != nullptr ||
      dynamic_cast<const master::LaunchRefused*>(&error) != nullptr) {
    return JOBMILL_NOT_LAUNCHED;
  }
  if (dynamic_cast<const master::RequestFailed*>(&error) != nullptr) return JOBMILL_REQUEST_FAILED;
  if (dynamic_cast<const master::LinkLost*>(&error) != nullptr) return JOBMILL_LINK_LOST;
  if (dynamic_cast<const master::ProtocolError*>(&error) != nullptr) return JOBMILL_BAD_ANSWER;
  return JOBMILL_INTERNAL;
}

// What every call does around `work`, whose result it returns.
template <typename Work>
int32_t Call(jobmill_run* run, const Work& work) noexcept {
  if (run == nullptr) return JOBMILL_USAGE;
  try {
    return work(HandleOf(run));
  } catch (const std::exception& error) {
    const int code = CodeOf(HandleOf(run), error);
    try {
      HandleOf(run).error = error.what();
    } catch (const std::exception&) {
      HandleOf(run).error.clear();  // without memory for a sentence
    }
    return code;
  }
}

// The same for a request of a run that is under way.
template <typename Work>
int32_t Request(jobmill_run* run, const Work& work) noexcept {
  return Call(run, [&work](Handle& own) -> int32_t {
    if (!own.run) throw Usage("The run has not been launched");
    if (own.over) throw Usage("The run is over: the handle can only be freed");
    if (own.cancelled) {
      throw Usage("A call was cancelled: the run can only be shut down, and the handle freed");
    }
    return work(*own.run);
  });
}

int32_t Length(std::size_t size) {
  constexpr auto kMost = static_cast<std::size_t>(std::numeric_limits<int32_t>::max());
  return static_cast<int32_t>(std::min(size, kMost));
}

std::string Text(const char* text) {
  return text == nullptr ? "" : text;
}

std::vector<std::string> Lines(const char* text) {
  std::vector<std::string> lines;
  std::string_view rest = text == nullptr ? "" : text;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (!line.empty()) lines.emplace_back(line);
  }
  return lines;
}

int32_t Give(const std::string& text, char* to, int32_t room) {
  if (room > 0 && to == nullptr) throw Usage("There is room, but no place for the text");
  if (room > 0) {
    const std::size_t size = std::min(text.size(), static_cast<std::size_t>(room) - 1);
    std::copy_n(text.data(), size, to);
    to[size] = '\0';
  }
  return Length(text.size());
}

void CheckRoom(std::size_t wanted, const double* values, int32_t room) {
  if (wanted > 0 && values == nullptr) throw Usage("There is no place for the values");
  if (room < 0 || static_cast<std::size_t>(room) < wanted) {
    throw Usage("There is room for " + std::to_string(room) + " values, but there are " +
                std::to_string(wanted));
  }
}

int32_t Give(const std::vector<double>& from, double* values, int32_t room) {
  CheckRoom(from.size(), values, room);
  std::copy(from.begin(), from.end(), values);
  return Length(from.size());
}

template <typename... Values>
void CheckPlaces(const Values*... values) {
  for (const void* place : {static_cast<const void*>(values)...}) {
    if (place == nullptr) throw Usage("There is no place for the value");
  }
}

template <typename Element>
const Element& At(const std::vector<Element>& list, int32_t index, const char* what) {
  if (index < 0 || static_cast<std::size_t>(index) >= list.size()) {
    throw Usage("There is no " + std::string(what) + " " + std::to_string(index) + " among the " +
                std::to_string(list.size()) + " that have been read");
  }
  return list[static_cast<std::size_t>(index)];
}

std::vector<double> ValuesOf(const double* values, int32_t count) {
  if (count < 0 || (count > 0 && values == nullptr)) throw Usage("There are no values");
  return {values, values + count};
}

int Number(const std::string& name, const std::string& text, int least, int most) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < least || value > most) {
    throw Usage(name + " is a number from " + std::to_string(least) + " to " +
                std::to_string(most) + ", not '" + text + "'");
  }
  return value;
}

void Set(Handle& run, const std::string& name, const std::string& value) {
  constexpr int kMost = std::numeric_limits<int>::max();
  const std::pair<const char*, std::string*> texts[] = {
      {"host", &run.host},           {"path", &run.request.path},
      {"root", &run.request.root},   {"processes", &run.request.processes},
      {"api", &run.request.version}, {"user", &run.request.user},
      {"debug", &run.request.debug}, {"cluster", &run.request.cluster}};
  for (const auto& [known, text] : texts) {
    if (name == known) {
      *text = value;
      return;
    }
  }
  if (name == "port") {
    run.port = Number(name, value, 1, 65535);
  } else if (name == "connect-wait") {
    run.connect_wait = Number(name, value, 0, kMost);
  } else if (name == "launch-wait") {
    run.launch_wait = Number(name, value, 0, kMost);
  } else {
    throw Usage("There is nothing called '" + name + "' to set");
  }
}

std::function<void()> TickOf(const Handle& run) {
  if (run.tick == nullptr) return {};
  return [tick = run.tick, user = run.user] { tick(user); };
}

void Launch(Handle& run) {
  if (run.launch || run.run) throw Usage("The handle has launched its run already");
  if (run.port == 0) throw Usage("The daemon's port has not been set");
  if (run.request.path.empty()) throw Usage("The run's data directory has not been set: path");
  if (run.request.root.empty()) throw Usage("The model's name has not been set: root");
  const auto in = [](int seconds) { return Clock::now() + std::chrono::seconds(seconds); };
  run.over = true;  // unless all of the launch succeeds
  run.launch.emplace(master::FrameChannel::ConnectTo(
      run.host, run.port, std::chrono::seconds(run.connect_wait), run.alarm.wake()));
  run.launch->OnWait(run.interval, TickOf(run));
  run.launch->ExchangeVersions(in(run.connect_wait));
  run.launch->Request(run.request);
  try {
    run.simulator_host =
        run.launch->AwaitHost(run.launch_wait == 0 ? Deadline() : in(run.launch_wait));
  } catch (const master::Error&) {
    // The daemon cannot be told to give up a launch, but to shut down what has been launched.
    run.launch->GiveUp();
    throw;
  }
  run.run.emplace(run.launch->Release());
  run.over = false;
  run.run->Connect();
}

}  // namespace

int32_t jobmill_version() {
  return JOBMILL_VERSION_NUMBER;
}

jobmill_run* jobmill_new() {
  try {
    return reinterpret_cast<jobmill_run*>(new Handle);
  } catch (const std::exception&) {
    return nullptr;
  }
}

void jobmill_free(jobmill_run* run) {
  if (run != nullptr) delete &HandleOf(run);
}

int32_t jobmill_error_text(jobmill_run* run, char* text, int32_t room) {
  if (run == nullptr || (room > 0 && text == nullptr)) return JOBMILL_USAGE;
  return Give(HandleOf(run).error, text, room);
}

int32_t jobmill_set(jobmill_run* run, const char* name, const char* value) {
  return Call(run, [&](Handle& own) {
    Set(own, Text(name), Text(value));
    return 0;
  });
}

int32_t jobmill_launch(jobmill_run* run) {
  return Call(run, [](Handle& own) {
    Launch(own);
    return 0;
  });
}

int32_t jobmill_host(jobmill_run* run, char* text, int32_t room) {
  return Call(run, [&](Handle& own) { return Give(own.simulator_host, text, room); });
}

void jobmill_cancel(jobmill_run* run) {
  if (run != nullptr) HandleOf(run).alarm.Raise();
}

int32_t jobmill_on_wait(jobmill_run* run, int32_t milliseconds, void (*tick)(void* user),
                        void* user) {
  return Call(run, [&](Handle& own) {
    if (tick != nullptr && milliseconds < 1) throw Usage("The time between ticks is 1 ms or more");
    own.interval = std::chrono::milliseconds(milliseconds);
    own.tick = tick;
    own.user = user;
    if (own.run) own.run->channel().OnWait(own.interval, TickOf(own));
    return 0;
  });
}

int32_t jobmill_shutdown(jobmill_run* run, int32_t seconds) {
  return Call(run, [&](Handle& own) {
    if (!own.run || own.over) throw Usage("There is no run to be shut down");
    if (seconds < 0) throw Usage("The time to wait is 0 s or more");
    own.alarm.Lower();
    own.over = true;
    if (own.run->ShutdownWithin(Clock::now() + std::chrono::seconds(seconds))) return 0;
    throw master::TimedOut("The simulator is busy; the daemon shuts it down after its step");
  });
}

int32_t jobmill_is_metric(jobmill_run* run, int32_t* flag) {
  return Request(run, [&](master::Run& own) {
    CheckPlaces(flag);
    *flag = own.GetMetricFlag() ? 1 : 0;
    return 0;
  });
}

int32_t jobmill_is_compositional(jobmill_run* run, int32_t* flag) {
  return Request(run, [&](master::Run& own) {
    CheckPlaces(flag);
    *flag = own.GetCompFlag() ? 1 : 0;
    return 0;
  });
}

int32_t jobmill_has_ended(jobmill_run* run, int32_t* flag) {
  return Request(run, [&](master::Run& own) {
    CheckPlaces(flag);
    *flag = own.GetTermFlag() ? 1 : 0;
    return 0;
  });
}

int32_t jobmill_simulator_version(jobmill_run* run, double* version) {
  return Request(run, [&](master::Run& own) {
    CheckPlaces(version);
    *version = own.GetVersion();
    return 0;
  });
}

int32_t jobmill_time(jobmill_run* run, double* days) {
  return Request(run, [&](master::Run& own) {
    CheckPlaces(days);
    *days = own.GetTimeDays();
    return 0;
  });
}

int32_t jobmill_date(jobmill_run* run, int32_t* day, int32_t* month, int32_t* year) {
  return Request(run, [&](master::Run& own) {
    CheckPlaces(day, month, year);
    const master::Date date = own.GetDate();
    *day = date.day;
    *month = date.month;
    *year = date.year;
    return 0;
  });
}

int32_t jobmill_start_date(jobmill_run* run, int32_t* day, int32_t* month, int32_t* year) {
  return Request(run, [&](master::Run& own) {
    CheckPlaces(day, month, year);
    const master::Date date = own.GetStartDate();
    *day = date.day;
    *month = date.month;
    *year = date.year;
    return 0;
  });
}

int32_t jobmill_first_step(jobmill_run* run) {
  return Request(run, [](master::Run& own) {
    own.Newton();
    return 0;
  });
}

int32_t jobmill_run_until(jobmill_run* run, double days) {
  return Request(run, [&](master::Run& own) {
    own.RunUntil(days);
    return 0;
  });
}

int32_t jobmill_read_wells(jobmill_run* run) {
  return Request(run, [&](master::Run& own) {
    HandleOf(run).wells = own.GetWellStatus();
    return Length(HandleOf(run).wells.size());
  });
}

int32_t jobmill_well_name(jobmill_run* run, int32_t well, char* text, int32_t room) {
  return Call(run, [&](Handle& own) { return Give(At(own.wells, well, "well").name, text, room); });
}

int32_t jobmill_well_type(jobmill_run* run, int32_t well, char* text, int32_t room) {
  return Call(run, [&](Handle& own) { return Give(At(own.wells, well, "well").type, text, room); });
}

int32_t jobmill_well_status(jobmill_run* run, int32_t well, char* text, int32_t room) {
  return Call(run,
              [&](Handle& own) { return Give(At(own.wells, well, "well").status, text, room); });
}

int32_t jobmill_read_data(jobmill_run* run, const char* wells, double* values, int32_t room) {
  return Request(run, [&](master::Run& own) {
    const std::vector<std::string> names = Lines(wells);
    CheckRoom(names.size() * JOBMILL_WELL_VALUES, values, room);
    std::vector<double> all;
    for (const master::WellData& data : own.GetWellData(names)) {
      all.insert(all.end(),
                 {data.oil_rate, data.gas_rate, data.water_rate, data.water_injection_rate,
                  data.gas_injection_rate, data.bottom_hole_pressure, data.tubing_head_pressure,
                  data.uptime_fraction});
    }
    return Give(all, values, room);
  });
}

int32_t jobmill_read_variables(jobmill_run* run, const char* well, const char* properties,
                               double* values, int32_t room) {
  return Request(run, [&](master::Run& own) {
    const std::vector<std::string> names = Lines(properties);
    CheckRoom(names.size(), values, room);
    return Give(own.GetWellVariables(Text(well), names), values, room);
  });
}

int32_t jobmill_set_status(jobmill_run* run, const char* wells, const char* status) {
  return Request(run, [&](master::Run& own) {
    const std::vector<std::string> names = Lines(wells);
    own.SetWellStatus(names, std::vector(names.size(), Text(status)));
    return 0;
  });
}

int32_t jobmill_set_uptime(jobmill_run* run, const char* wells, double fraction) {
  return Request(run, [&](master::Run& own) {
    const std::vector<std::string> names = Lines(wells);
    own.SetWellUptime(names, std::vector(names.size(), fraction));
    return 0;
  });
}

int32_t jobmill_set_constraints(jobmill_run* run, const char* wells, const char* properties,
                                const double* values, int32_t count) {
  return Request(run, [&](master::Run& own) {
    const std::vector<std::string> names = Lines(properties);
    const std::vector<double> numbers = ValuesOf(values, count);
    if (names.size() != numbers.size()) {
      throw Usage("There are " + std::to_string(names.size()) + " properties and " +
                  std::to_string(numbers.size()) + " values");
    }
    std::vector<master::WellConstraints> constraints;
    for (const std::string& well : Lines(wells)) constraints.push_back({well, names, numbers});
    own.SetWellConstraints(constraints);
    return 0;
  });
}

int32_t jobmill_read_inflow(jobmill_run* run, const char* wells, int32_t bottom_hole,
                            double skewness, int32_t components) {
  return Request(run, [&](master::Run& own) {
    if (components < 0) throw Usage("The number of components is 0 or more");
    HandleOf(run).inflow = own.GetWellIPRData({.wells = Lines(wells),
                                               .components = components,
                                               .bottom_hole = bottom_hole != 0,
                                               .skewness = skewness});
    return HandleOf(run).inflow.points;
  });
}

int32_t jobmill_inflow(jobmill_run* run, int32_t well, int32_t column, double* values,
                       int32_t room) {
  return Call(run, [&](Handle& own) {
    const master::WellIPR& table = At(own.inflow.wells, well, "table");
    const std::vector<double>* const columns[] = {
        &table.pressure,    &table.oil_rate,    &table.water_rate,  &table.gas_rate,
        &table.temperature, &table.gas_density, &table.oil_density, &table.water_density};
    if (column < 0) throw Usage("There is no such column");
    if (column < JOBMILL_INFLOW_COLUMNS) return Give(*columns[column], values, room);
    std::vector<double> fractions;
    for (const std::vector<double>& point : table.mole_fractions) {
      fractions.push_back(At(point, column - JOBMILL_INFLOW_COLUMNS, "component"));
    }
    if (fractions.empty()) throw Usage("No mole fractions were asked for");
    return Give(fractions, values, room);
  });
}

int32_t jobmill_read_fluid(jobmill_run* run) {
  return Request(run, [&](master::Run& own) {
    HandleOf(run).fluid = own.GetEOSProps();
    return Length(HandleOf(run).fluid.components.size());
  });
}

int32_t jobmill_component_name(jobmill_run* run, int32_t component, char* text, int32_t room) {
  return Call(run, [&](Handle& own) {
    return Give(At(own.fluid.components, component, "component"), text, room);
  });
}

int32_t jobmill_fluid(jobmill_run* run, int32_t property, double* values, int32_t room) {
  return Call(run, [&](Handle& own) {
    const master::EOSProps& eos = own.fluid;
    const std::vector<const std::vector<double>*> lists{
        &eos.molecular_weight,  &eos.critical_temperature,
        &eos.critical_pressure, &eos.critical_volume,
        &eos.acentric_factor,   &eos.boiling_point,
        &eos.volume_shift,      &eos.omega_a,
        &eos.omega_b,           &eos.parachor,
        &eos.binary_interaction};
    return Give(*At(lists, property, "property"), values, room);
  });
}

int32_t jobmill_set_source(jobmill_run* run, const char* well, const char* source) {
  return Request(
      run, [&](master::Run& own) { return own.SetWellInjectionSource(Text(well), Text(source)); });
}

int32_t jobmill_set_composition(jobmill_run* run, const char* source, const double* fractions,
                                int32_t count) {
  return Request(run, [&](master::Run& own) {
    own.SetWellInjectionComposition({Text(source)}, {ValuesOf(fractions, count)});
    return 0;
  });
}
