#include "simulator/controller_link.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

namespace simulator {
namespace {

constexpr int kMostInflowPoints = 1000;

// A member of Component and its name on the link.
struct ComponentColumn {
  const char* name;
  double Component::*member;
  Quantity quantity;
};
constexpr std::array<ComponentColumn, 10> kComponentColumns{{
    {"Molecular weight", &Component::molecular_weight, Quantity::kNone},
    {"TCrit", &Component::critical_temperature, Quantity::kAbsolute},
    {"PCrit", &Component::critical_pressure, Quantity::kPressure},
    {"VCRIT", &Component::critical_volume, Quantity::kMolarVolume},
    {"Acentric factor", &Component::acentric_factor, Quantity::kNone},
    {"BP", &Component::boiling_point, Quantity::kAbsolute},
    {"VSHIFT", &Component::volume_shift, Quantity::kNone},
    {"OMEGAA", &Component::omega_a, Quantity::kNone},
    {"OMEGAB", &Component::omega_b, Quantity::kNone},
    {"Parachor", &Component::parachor, Quantity::kNone},
}};

std::vector<std::string> names_of(const std::vector<Component>& components) {
  std::vector<std::string> names;
  names.reserve(components.size());
  for (const Component& each : components) names.push_back(each.name);
  return names;
}

// The triangle below the diagonal, row by row: (2,1), (3,1), (3,2), ...
std::vector<double> interactions_of(const std::vector<Component>& components) {
  std::vector<double> values;
  for (std::size_t i = 1; i < components.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      values.push_back(binary_interaction(components[i].name, components[j].name));
    }
  }
  return values;
}

void require_same_length(std::size_t a, std::size_t b, const std::string& what) {
  if (a != b) throw std::invalid_argument("Lists of different lengths in " + what);
}

}  // namespace

ControllerLink::ControllerLink(Reservoir& reservoir, Version version, Faults faults,
                               StopSignal& stop, Listeners listeners)
    : reservoir_(reservoir),
      version_(version),
      faults_(std::move(faults)),
      stop_(stop),
      listeners_(std::move(listeners)) {}

void ControllerLink::notice(const std::string& line) const {
  if (listeners_.noticed) listeners_.noticed(line);
}

void ControllerLink::check(bool done, const std::string& what) const {
  if (!done) notice("Ignored: " + what);
}

ControllerLink::Ending ControllerLink::serve(Descriptor connection) {
  const int descriptor = connection.get();
  vk_ec::Transporter transporter(connection.Release());
  manager_ = std::make_unique<Manager>(transporter);
  descriptor_ = descriptor;
  stop_.watch(descriptor);
  Ending ending = Ending::kControllerLeft;
  try {
    converse(descriptor);
  } catch (const Shutdown&) {
    ending = Ending::kShutdown;
  } catch (const Cut&) {
    ending = Ending::kFault;
  } catch (const std::exception& error) {
    ending = Ending::kBroken;
    if (!stop_.raised()) notice(std::string("Connection given up: ") + error.what());
  }
  stop_.watch(-1);
  manager_.reset();
  return stop_.raised() && ending != Ending::kShutdown ? Ending::kStopped : ending;
}

void ControllerLink::converse(int descriptor) {
  constexpr std::chrono::milliseconds kNoLimit{-1};
  // Peeking tells a controller that left between two messages from one that broke off within one.
  unsigned char next = 0;
  while (stop_.wait(descriptor, kNoLimit) == StopSignal::Wait::kReady &&
         recv(descriptor, &next, 1, MSG_PEEK) > 0) {
    answer(manager_->createMessageDecoder());
  }
}

void ControllerLink::answer(Decoder message) {
  const auto header = message.get_header();
  header.check_expectation_MESS(0);
  if (header.name == "SETUP") return set_up(std::move(message));
  if (position_ == Position::kUnconnected) {
    throw std::invalid_argument("Message before SETUP: " + header.name);
  }
  if (header.name == "CONTINUE") {
    // From the model's definition to its first time step; from there, step by step.
    const bool first = position_ == Position::kModelDefinition;
    return advance(message, reservoir_.time() + (first ? 0 : reservoir_.deck().max_step));
  }
  if (header.name == "CONTINUE_UNTIL") {
    return advance(message, message.get_header_and_data<double>("TIME", 1)[0]);
  }
  if (header.name == "SHUTDOWN") return shut_down(std::move(message));
  if (header.name == "QUERY") return query(std::move(message));
  if (header.name == "SET") return set(std::move(message));
  throw std::invalid_argument("Unknown message: " + header.name);
}

void ControllerLink::set_up(Decoder message) {
  const std::string version = message.get_header_and_data<std::string>("VERSION", 1)[0];
  finish(message);
  std::vector<std::string> errors;
  if (!faults_.refuse_setup.empty()) {
    errors.push_back(faults_.refuse_setup);
  } else if (version != "V2") {
    errors.push_back("Unsupported external-controller version " + version);
  } else if (position_ != Position::kUnconnected) {
    errors.emplace_back("The run is set up already");
  }
  auto builder = begin("STARTED");
  builder.add_data("ERRORS", errors);
  end(builder);
  if (!errors.empty()) return notice("Set-up refused: " + errors[0]);
  notice("Controller connected");
  position_ = Position::kModelDefinition;
  send_position();
}

void ControllerLink::advance(Decoder& message, double until) {
  finish(message);
  if (faults_.step_delay.count() > 0 &&
      stop_.wait(-1, faults_.step_delay) == StopSignal::Wait::kStopped) {
    throw std::runtime_error("stopped");
  }
  if (position_ == Position::kEndSimulate) {
    auto builder = begin("FINISHED");
    return end(builder);
  }
  reservoir_.advance_to(until, [this] { return stop_.raised(); });
  if (stop_.raised()) throw std::runtime_error("stopped");
  position_ = reservoir_.ended() ? Position::kEndSimulate : Position::kBeginNewton;
  send_position();
}

void ControllerLink::shut_down(Decoder message) {
  finish(message);
  auto builder = begin("FINISHED");
  end(builder);
  throw Shutdown();
}

void ControllerLink::send_position() {
  const char* name = position_ == Position::kModelDefinition ? "MODEL_DEFINITION"
                     : position_ == Position::kBeginNewton   ? "BEGIN_NEWTON"
                                                             : "END_SIMULATE";
  const DateTime date = reservoir_.date();
  auto builder = begin("STEP");
  builder.add_data("POSITION", std::vector<std::string>{name})
      .add_data("TIME", std::vector<double>{reservoir_.time()})
      .add_data("DATE", std::vector<int>(date.begin(), date.end()));
  end(builder);
  if (listeners_.stepped) listeners_.stepped(reservoir_);
}

void ControllerLink::send_ready() {
  auto builder = begin("READY");
  end(builder);
}

void ControllerLink::finish(Decoder& message) {
  message.get_header().check_expectation_MESS("END", 0);
  message.finalize();
}

ControllerLink::Builder ControllerLink::begin(const std::string& name) {
  ++sent_;
  if (sent_ == faults_.cut_after) cut(name);
  auto builder = manager_->createMessageBuilder();
  builder.add_MESS_header(sent_ == faults_.wrong_header ? "BOGUS" : name, 0);
  return builder;
}

// Announces a message of 1,000 bytes, sends its first header, and cuts the connection.
void ControllerLink::cut(const std::string& name) {
  const std::string length("\xe8\x03\0\0\0\0\0\0", 8);
  std::string bytes = length + length;
  bytes += static_cast<char>(name.size());
  bytes += name + std::string(8, '\0') + "MESS";
  [[maybe_unused]] const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  notice("Cutting the connection in message " + std::to_string(sent_));
  throw Cut();
}

void ControllerLink::end(Builder& builder) {
  builder.add_MESS_header("END", 0);
  builder.send();
}

std::vector<std::size_t> ControllerLink::wells_named(const std::vector<std::string>& names) const {
  std::vector<std::size_t> wells;
  if (std::find(names.begin(), names.end(), "*") != names.end()) {
    wells.resize(reservoir_.well_count());
    for (std::size_t i = 0; i < wells.size(); ++i) wells[i] = i;
    return wells;
  }
  wells.reserve(names.size());
  for (const std::string& name : names) {
    if (const auto well = reservoir_.find_well(name)) wells.push_back(*well);
  }
  return wells;
}

void ControllerLink::query(Decoder message) {
  const auto kind = message.get_header();
  kind.check_expectation_MESS(0);
  if (kind.name == "QWELLS" || kind.name == "QWELLS_STR") {
    query_wells(message, kind.name == "QWELLS_STR");
  } else if (kind.name == "QRESVR") {
    query_reservoir_numbers(message);
  } else if (kind.name == "QRESVR_STR") {
    query_reservoir_texts(message);
  } else if (kind.name == "QWCONSTRAINTS") {
    query_constraints(message);
  } else if (kind.name == "QIPRDATA") {
    query_inflow(message);
  } else if (kind.name == "QFMFLUIDMODEL") {
    query_field_model(message);
  } else if (kind.name == "QRFLUIDMODEL") {
    query_reservoir_model(message);
  } else {
    throw std::invalid_argument("Unknown query: " + kind.name);
  }
  send_ready();
}

void ControllerLink::query_wells(Decoder& message, bool texts) {
  const auto items = message.get_header_and_data<std::string>("QITEMS");
  const auto names = message.get_header_and_data<std::string>("WELNAMES");
  finish(message);
  std::vector<std::string> known;
  std::vector<const Reservoir::Property*> properties;
  for (const std::string& item : items) {
    const Reservoir::Property* property = texts ? nullptr : reservoir_.find_property(item);
    if (texts ? !reservoir_.text(0, item) : property == nullptr) continue;
    known.push_back(item);
    properties.push_back(property);
  }
  auto builder = begin("REPLY");
  builder.add_data("QITEMS", known);
  for (const std::size_t well : wells_named(names)) {
    builder.add_data("WELLNAME", std::vector{reservoir_.well(well).deck().name});
    if (texts) {
      std::vector<std::string> row;
      row.reserve(known.size());
      for (const std::string& item : known) row.push_back(*reservoir_.text(well, item));
      builder.add_data("VALUES", row);
    } else {
      std::vector<double> row;
      row.reserve(properties.size());
      for (const auto* property : properties) row.push_back(reservoir_.value(well, *property));
      builder.add_data("VALUES", row);
    }
  }
  end(builder);
}

void ControllerLink::query_reservoir_numbers(Decoder& message) {
  const auto items = message.get_header_and_data<std::string>("QITEMS");
  finish(message);
  auto builder = begin("REPLY");
  for (const std::string& item : items) {
    if (item != "START_DATE") continue;
    const DateTime date = reservoir_.start_date();
    builder.add_data("QITEM", std::vector{item})
        .add_data("VALUES", std::vector<int>(date.begin(), date.end()));
  }
  end(builder);
}

void ControllerLink::query_reservoir_texts(Decoder& message) {
  const auto items = message.get_header_and_data<std::string>("QITEMS");
  finish(message);
  const auto value_of = [this](const std::string& item) -> std::optional<std::string> {
    if (item == "VK_VERSION") return version_ == Version::k2016_2 ? "2016.2" : "2017.2";
    if (item == "UNIT_SYSTEM") return reservoir_.deck().units.name();
    if (item == "FM_FLUID_MODEL" || item == "RES_FLUID_MODEL") {
      return reservoir_.deck().composition ? "COMPOSITIONAL" : "BLACK_OIL";
    }
    return std::nullopt;
  };
  auto builder = begin("REPLY");
  for (const std::string& item : items) {
    const auto value = value_of(item);
    if (!value) continue;
    builder.add_data("QITEM", std::vector{item}).add_data("VALUES", std::vector{*value});
  }
  end(builder);
}

void ControllerLink::query_constraints(Decoder& message) {
  const auto names = message.get_header_and_data<std::string>("WELNAMES");
  finish(message);
  auto builder = begin("REPLY");
  for (const std::size_t position : wells_named(names)) {
    const Well& well = reservoir_.well(position);
    std::vector<std::string> items;
    std::vector<double> values;
    std::vector<std::string> setters;
    for (std::size_t i = 0; i < kConstraintCount; ++i) {
      const auto& limit = well.limits()[i];
      if (!limit) continue;
      items.emplace_back(constraint_names()[i]);
      values.push_back(reservoir_.deck().units.from_model(quantity_of(static_cast<Constraint>(i)),
                                                          limit->value));
      setters.push_back(limit->setter);
    }
    builder.add_data("WELLNAME", std::vector{well.deck().name})
        .add_data("ITEMS", items)
        .add_data("VALUES", values)
        .add_data("SETTERS", setters);
  }
  end(builder);
}

void ControllerLink::query_inflow(Decoder& message) {
  auto names = message.get_header_and_data<std::string>("WELNAMES");
  auto types = message.get_header_and_data<std::string>("PRESSURETYPES");
  const int asked = message.get_header_and_data<int>("NPOINTS", 1)[0];
  const double skewness = message.get_header_and_data<double>("SKEWNESS", 1)[0];
  finish(message);
  require_same_length(names.size(), types.size(), "QIPRDATA");
  const int points = std::clamp(asked, 0, kMostInflowPoints);
  auto builder = begin("REPLY");
  for (std::size_t i = 0; i < names.size(); ++i) {
    for (const std::size_t well : wells_named({names[i]})) {
      const auto curve = reservoir_.inflow_curve(well, types[i], points, skewness);
      if (!curve) continue;
      builder.add_data("WELLNAME", std::vector{reservoir_.well(well).deck().name})
          .add_data("NPOINTS", std::vector<int>{points});
      for (std::size_t c = 0; c < curve->items.size(); ++c) {
        builder.add_data("ITEM", std::vector{curve->items[c]}).add_data("VALUES", curve->values[c]);
      }
    }
  }
  end(builder);
}

void ControllerLink::query_field_model(Decoder& message) {
  finish(message);
  auto builder = begin("REPLY");
  if (const auto& composition = reservoir_.deck().composition) {
    builder.add_data("NCOMPS", names_of(composition->components));
  }
  end(builder);
}

void ControllerLink::query_reservoir_model(Decoder& message) {
  finish(message);
  auto builder = begin("REPLY");
  if (const auto& composition = reservoir_.deck().composition) {
    builder.add_data("FLUIDMODELDNAME", std::vector<std::string>{"RESERVOIR_FLUID"})
        .add_data("EOSNAME", std::vector<std::string>{"PENG_ROBINSON"})
        .add_data("NCOMPS", names_of(composition->components))
        .add_data("BIC", interactions_of(composition->components));
    for (const ComponentColumn& column : kComponentColumns) {
      std::vector<double> values;
      for (const Component& each : composition->components) {
        values.push_back(reservoir_.deck().units.from_model(column.quantity, each.*column.member));
      }
      builder.add_data("EOSPROPNAME", std::vector<std::string>{column.name})
          .add_data("VALUES", values);
    }
  }
  end(builder);
}

void ControllerLink::set(Decoder message) {
  const auto kind = message.get_header();
  kind.check_expectation_MESS(0);
  const bool is_source = kind.name == "SETWSTRE" || kind.name == "CREATE_FLDSRCEXT";
  if (is_source && version_ == Version::k2016_2) {
    throw std::invalid_argument("Version 2016.2 has no setter " + kind.name);
  }
  if (kind.name == "SETWCONSTRAINTS") {
    set_constraints(message);
  } else if (kind.name == "SETWSTATUS") {
    set_status(message);
  } else if (kind.name == "SETWELLS") {
    set_uptime(message);
  } else if (kind.name == "SETWSTRE") {
    set_source(message);
  } else if (kind.name == "CREATE_FLDSRCEXT") {
    create_source(message);
  } else {
    throw std::invalid_argument("Unknown setter: " + kind.name);
  }
  send_ready();
}

void ControllerLink::set_constraints(Decoder& message) {
  auto header = message.get_header();
  while (header.name == "WELLNAME") {
    header.check_expectation("WELLNAME", 1);
    const std::string name = message.get_data<std::string>(header)[0];
    const auto items = message.get_header_and_data<std::string>("ITEMS");
    const auto values = message.get_header_and_data<double>("VALUES", items.size());
    const auto setters = message.get_header_and_data<std::string>("SETTERS", items.size());
    const auto wells = wells_named({name});
    check(!wells.empty(), "constraints of unknown well " + name);
    for (const std::size_t well : wells) {
      const std::string& known = reservoir_.well(well).deck().name;
      for (std::size_t i = 0; i < items.size(); ++i) {
        check(reservoir_.set_constraint(known, items[i], values[i], setters[i]),
              "unknown constraint " + items[i] + " of well " + known);
      }
    }
    header = message.get_header();
  }
  header.check_expectation_MESS("END", 0);
  message.finalize();
}

void ControllerLink::set_status(Decoder& message) {
  // The closure mode says whether layers flow into each other through a shut well. A tank has none.
  message.get_header_and_data<std::string>("WCLOSURE", 1);
  const auto item = message.get_header_and_data<std::string>("SETITEM", 1)[0];
  const auto names = message.get_header_and_data<std::string>("WELNAMES");
  const auto values = message.get_header_and_data<std::string>("VALUES", names.size());
  finish(message);
  if (item != "STATUS") throw std::invalid_argument("Unknown SETWSTATUS item: " + item);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto wells = wells_named({names[i]});
    check(!wells.empty(), "status of unknown well " + names[i]);
    for (const std::size_t well : wells) {
      check(reservoir_.set_status(reservoir_.well(well).deck().name, values[i]),
            "status " + values[i] + " of well " + names[i]);
    }
  }
}

void ControllerLink::set_uptime(Decoder& message) {
  const auto item = message.get_header_and_data<std::string>("SETITEM", 1)[0];
  const auto names = message.get_header_and_data<std::string>("WELNAMES");
  const auto values = message.get_header_and_data<double>("VALUES", names.size());
  finish(message);
  if (item != "UPTIME_FRACTION") throw std::invalid_argument("Unknown SETWELLS item: " + item);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto wells = wells_named({names[i]});
    check(!wells.empty(), "uptime of unknown well " + names[i]);
    for (const std::size_t well : wells) {
      check(reservoir_.set_uptime(reservoir_.well(well).deck().name, values[i]),
            "uptime " + std::to_string(values[i]) + " of well " + names[i]);
    }
  }
}

void ControllerLink::set_source(Decoder& message) {
  const auto source = message.get_header_and_data<std::string>("STNAME", 1)[0];
  const auto values = message.get_header_and_data<double>("STCMPVALUES");
  const auto names = message.get_header_and_data<std::string>("STCMPNAMES", values.size());
  const auto phase = message.get_header_and_data<std::string>("STPHASE", 1)[0];
  finish(message);
  const bool done =
      (phase.empty() || phase == "GAS") && reservoir_.set_source_composition(source, names, values);
  check(done, "composition of source " + source);
}

void ControllerLink::create_source(Decoder& message) {
  const auto well = message.get_header_and_data<std::string>("WELLNAME", 1)[0];
  const auto source = message.get_header_and_data<std::string>("STNAME", 1)[0];
  const auto phase = message.get_header_and_data<std::string>("STPHASE", 1)[0];
  finish(message);
  const bool done = reservoir_.create_source(well, source, phase);
  check(done, "source " + source + " of phase " + phase + " for well " + well);
  auto builder = begin("REPLY");
  builder.add_data("STRET", std::vector<int>{done ? 1 : 0});
  end(builder);
}

}  // namespace simulator
