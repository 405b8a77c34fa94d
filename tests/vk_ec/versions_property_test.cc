#include <sys/socket.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/generators.h"
#include "tests/support/socket_pair.h"
#include "tests/vk_ec/client_fixture.h"

namespace {

using ::vk_ec::Client;
using Strings = std::vector<std::string>;
using Numbers = std::vector<double>;

const std::string kEnd = wire::Mess("END");
const std::string kReady = wire::Mess("READY") + kEnd;

// Results as text, doubles by their bits, to compare them and to show how they differ.
std::string Text(int value) {
  return std::to_string(value);
}
std::string Text(double value) {
  return std::to_string(any::Bits(value));
}
std::string Text(const std::string& value) {
  return std::to_string(value.size()) + ":" + value;
}
std::string Text(const ::vk_ec::ReservoirFluidModelDescription& r);
template <class T>
std::string Text(const std::vector<T>& values) {
  std::string text = "[";
  for (const T& value : values) text += Text(value) + ",";
  return text + "]";
}
template <class T>
std::string Text(const ::vk_ec::WellQueryResults<T>& r) {
  return Text(r.wells) + Text(r.items) + Text(r.values);
}
template <class T>
std::string Text(const ::vk_ec::ReservoirQueryResults<T>& r) {
  return Text(r.items) + Text(r.values);
}
std::string Text(const ::vk_ec::WellConstraintResults& r) {
  return Text(r.wells) + Text(r.items) + Text(r.values) + Text(r.setters);
}
std::string Text(const ::vk_ec::IPRDataResults& r) {
  return Text(r.wells) + Text(r.items) + Text(r.values);
}
std::string Text(const ::vk_ec::ReservoirFluidModelDescription& r) {
  return Text(r.fluid_model_name) + Text(r.eos_name) + Text(r.component_names) + Text(r.bic) +
         Text(r.eos_property_names) + Text(r.eos_property_values);
}
std::string Text(const ::vk_ec::PositionInfo& r) {
  return r.display_algorithmic_position() + Text(r.time) +
         Text(std::vector<int>(r.date.begin(), r.date.end()));
}

// One operation with its arguments, the messages with which the simulator answers it, and the
// result that they describe.
struct Operation {
  std::function<std::string(Client&)> run;
  Strings answers;
  std::string result;
};

Strings AnyStrings() {
  return *rc::gen::resize(8, rc::gen::container<Strings>(any::Bytes()));
}
Numbers AnyNumbers(std::size_t count) {
  return *rc::gen::container<Numbers>(count, any::Double());
}
std::size_t AnySize() {
  return *rc::gen::inRange<std::size_t>(0, 6);
}

Strings Reply(const std::string& headers) {
  return {wire::Mess("REPLY") + headers + kEnd, kReady};
}

Operation Step() {
  const int kind = *rc::gen::inRange(0, 3);
  const double until = *any::Double();
  ::vk_ec::PositionInfo info;
  info.position = ::vk_ec::AlgPos::BEGIN_NEWTON;
  info.time = *any::Double();
  for (int& field : info.date) field = *rc::gen::arbitrary<int>();
  std::string answer = wire::Mess("STEP") + wire::Cstr("POSITION", {"BEGIN_NEWTON"}) +
                       wire::Doub("TIME", {info.time}) +
                       wire::Inte("DATE", {info.date.begin(), info.date.end()}) + kEnd;
  if (*rc::gen::arbitrary<bool>()) {
    answer = wire::Mess("FINISHED") + kEnd;
    info = ::vk_ec::PositionInfo{};
    info.position = ::vk_ec::AlgPos::END_SIMULATE;
  }
  const auto run = [kind, until](Client& client) {
    if (kind == 0) client.do_continue();
    if (kind == 1) client.do_continue_until(until);
    if (kind == 2) client.do_shutdown();
    return Text(client.position_info());
  };
  return {run, {answer}, Text(info)};
}

std::string List(const std::string& name, const Numbers& values) {
  return wire::Doub(name, values);
}
std::string List(const std::string& name, const Strings& values) {
  return wire::Cstr(name, values);
}
std::string List(const std::string& name, const std::vector<int>& values) {
  return wire::Inte(name, values);
}

template <class T, class MakeRow>
Operation WellProperties(const MakeRow& make_row) {
  const Strings wells = AnyStrings();
  const Strings items = AnyStrings();
  ::vk_ec::WellQueryResults<T> results;
  std::string headers;
  if (*rc::gen::inRange(0, 4) > 0) {
    results.items = AnyStrings();
    headers = wire::Cstr("QITEMS", results.items);
    results.wells = AnyStrings();
    for (const std::string& well : results.wells) {
      results.values.push_back(make_row(results.items.size()));
      headers += wire::Cstr("WELLNAME", {well}) + List("VALUES", results.values.back());
    }
  }
  return {[wells, items](Client& client) {
            return Text(client.get_properties_for_wells<T>(wells, items));
          },
          Reply(headers), Text(results)};
}

template <class T>
Operation RunProperties(const rc::Gen<std::vector<T>>& row) {
  const Strings items = AnyStrings();
  ::vk_ec::ReservoirQueryResults<T> results;
  results.items = AnyStrings();
  std::string headers;
  for (const std::string& item : results.items) {
    results.values.push_back(*row);
    headers += wire::Cstr("QITEM", {item}) + List("VALUES", results.values.back());
  }
  return {[items](Client& client) { return Text(client.get_reservoir_properties<T>(items)); },
          Reply(headers), Text(results)};
}

Operation Constraints() {
  const Strings wells = AnyStrings();
  ::vk_ec::WellConstraintResults results;
  results.wells = AnyStrings();
  std::string headers;
  for (const std::string& well : results.wells) {
    results.items.push_back(AnyStrings());
    const std::size_t count = results.items.back().size();
    results.values.push_back(AnyNumbers(count));
    results.setters.push_back(*rc::gen::container<Strings>(count, any::Bytes()));
    headers += wire::Cstr("WELLNAME", {well}) + wire::Cstr("ITEMS", results.items.back()) +
               wire::Doub("VALUES", results.values.back()) +
               wire::Cstr("SETTERS", results.setters.back());
  }
  return {[wells](Client& client) { return Text(client.get_constraints_for_wells(wells)); },
          Reply(headers), Text(results)};
}

Operation InflowData() {
  const Strings wells =
      *rc::gen::nonEmpty(rc::gen::resize(5, rc::gen::container<Strings>(any::Bytes())));
  const Strings pressures(wells.size(), "BHP");
  const auto points = *rc::gen::inRange(1U, 100U);
  const double skewness = *any::Double();
  ::vk_ec::IPRDataResults results;
  std::string headers;
  for (const std::string& well : wells) {
    const std::size_t count = AnySize();
    results.wells.push_back(well);
    headers += wire::Cstr("WELLNAME", {well}) + wire::Inte("NPOINTS", {static_cast<int>(count)});
    results.items.push_back(AnyStrings());
    auto& curves = results.values.emplace_back();
    for (const std::string& item : results.items.back()) {
      curves.push_back(AnyNumbers(count));
      headers += wire::Cstr("ITEM", {item}) + wire::Doub("VALUES", curves.back());
    }
  }
  return {[=](Client& client) {
            return Text(client.get_ipr_data_for_wells(wells, pressures, points, skewness));
          },
          Reply(headers), Text(results)};
}

Operation FieldManagementFluid() {
  const Strings components = AnyStrings();
  const bool none = *rc::gen::inRange(0, 4) == 0;
  return {
      [](Client& client) { return Text(client.get_field_management_fluid_model_description()); },
      Reply(none ? "" : wire::Cstr("NCOMPS", components)), Text(none ? Strings{} : components)};
}

Operation ReservoirFluids() {
  std::vector<::vk_ec::ReservoirFluidModelDescription> models(AnySize());
  std::string headers;
  for (auto& model : models) {
    model.fluid_model_name = *any::Bytes();
    model.eos_name = *any::Bytes();
    model.component_names = AnyStrings();
    model.bic = AnyNumbers(AnySize());
    headers += wire::Cstr("FLUIDMODELDNAME", {model.fluid_model_name}) +
               wire::Cstr("EOSNAME", {model.eos_name}) +
               wire::Cstr("NCOMPS", model.component_names) + wire::Doub("BIC", model.bic);
    model.eos_property_names = AnyStrings();
    for (const std::string& name : model.eos_property_names) {
      model.eos_property_values.push_back(AnyNumbers(model.component_names.size()));
      headers += wire::Cstr("EOSPROPNAME", {name}) +
                 wire::Doub("VALUES", model.eos_property_values.back());
    }
  }
  return {[](Client& client) { return Text(client.get_reservoir_fluid_model_description()); },
          Reply(headers), Text(models)};
}

Operation Setter() {
  const Strings wells = AnyStrings();
  const int kind = *rc::gen::inRange(0, 3);
  std::vector<Strings> items;
  std::vector<Numbers> values;
  std::vector<Strings> setters;
  for (std::size_t i = 0; i < wells.size(); ++i) {
    items.push_back(AnyStrings());
    values.push_back(AnyNumbers(items.back().size()));
    setters.push_back(*rc::gen::container<Strings>(items.back().size(), any::Bytes()));
  }
  const auto statuses = *rc::gen::container<Strings>(wells.size(), any::Bytes());
  const Numbers fractions = AnyNumbers(wells.size());
  const std::string closure = *any::Bytes();
  const auto run = [=](Client& client) {
    if (kind == 0) client.set_constraints_for_wells(wells, items, values, setters);
    if (kind == 1) client.set_status_for_wells(wells, statuses, closure);
    if (kind == 2) client.set_uptime_fractions_for_wells(wells, fractions);
    return std::string("set");
  };
  return {run, {kReady}, "set"};
}

Operation AnyOperation() {
  const auto numbers = [](std::size_t count) { return AnyNumbers(count); };
  const auto strings = [](std::size_t count) {
    return *rc::gen::container<Strings>(count, any::Bytes());
  };
  switch (*rc::gen::inRange(0, 10)) {
    case 0:
      return Step();
    case 1:
      return WellProperties<double>(numbers);
    case 2:
      return WellProperties<std::string>(strings);
    case 3:
      return RunProperties<int>(rc::gen::arbitrary<std::vector<int>>());
    case 4:
      return RunProperties<std::string>(rc::gen::container<Strings>(any::Bytes()));
    case 5:
      return Constraints();
    case 6:
      return InflowData();
    case 7:
      return FieldManagementFluid();
    case 8:
      return ReservoirFluids();
    default:
      return Setter();
  }
}

struct Outcome {
  std::string written;
  std::string result;
};

// What a client of this version writes, and what it makes of the answers, which lie ready before it
// asks.
template <class Version>
Outcome Run(const Operation& operation, const Strings& answers) {
  SocketPair pair;
  const int large = 1 << 22;
  setsockopt(pair.peer.get(), SOL_SOCKET, SO_SNDBUF, &large, sizeof(large));
  for (const std::string& answer : answers) WriteAll(pair.peer.get(), wire::Framed(answer));
  shutdown(pair.peer.get(), SHUT_WR);
  Outcome outcome;
  {
    PairedClient<Version> client(pair.ours.Release());
    try {
      outcome.result = operation.run(client);
    } catch (const std::exception& failure) {
      outcome.result = std::string("failed: ") + failure.what();
    }
  }
  outcome.written = Arrived(pair.peer.get());
  return outcome;
}

RC_GTEST_PROP(VersionsProperty, BothWriteTheSameBytesAndReadTheAnswerThatWasGiven, ()) {
  const Operation operation = AnyOperation();
  const Outcome older = Run<v2016_2::vk_ec::VarnokClient>(operation, operation.answers);
  const Outcome newer = Run<v2017_2::vk_ec::VarnokClient>(operation, operation.answers);
  RC_ASSERT(older.result == operation.result);
  RC_ASSERT(newer.result == operation.result);
  RC_ASSERT(!older.written.empty());
  RC_ASSERT(newer.written == older.written);
}

RC_GTEST_PROP(VersionsProperty, BothMakeTheSameOfADamagedAnswer, ()) {
  const Operation operation = AnyOperation();
  Strings answers = operation.answers;
  std::string& damaged = answers[*rc::gen::inRange<std::size_t>(0, answers.size())];
  // From the second header on: there the older version accepts any name for one list of components.
  const bool cut = *rc::gen::arbitrary<bool>();
  const auto at = *rc::gen::inRange<std::size_t>(0, damaged.size());
  if (cut) {
    damaged.resize(at);
  } else {
    damaged[at] = *rc::gen::arbitrary<char>();
  }
  const Outcome older = Run<v2016_2::vk_ec::VarnokClient>(operation, answers);
  const Outcome newer = Run<v2017_2::vk_ec::VarnokClient>(operation, answers);
  const bool names_differ = newer.result.find("vs expected: NCOMPS-") != std::string::npos;
  RC_ASSERT(newer.result == older.result || names_differ);
  RC_ASSERT(newer.written == older.written);
}

}  // namespace
