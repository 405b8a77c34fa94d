// The simulator's answers to queries and to the setters that have one: what a query returns is
// exactly what the answer says (written down again it gives the answer's very bytes), lists that
// go together have one length, and every other answer fails with one of the promised exceptions.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/system/system_error.hpp>

#include "fuzz/support/answer_script.h"
#include "fuzz/support/input.h"
#include "fuzz/support/memory_stream.h"
#include "fuzz/support/paired_client.h"
#include "fuzz/support/promise.h"
#include "fuzz/support/wire.h"
#include "vk_ec/v2016_2/varnok_client.h"
#include "vk_ec/v2017_2/varnok_client.h"

namespace {

using Texts = std::vector<std::string>;

const Texts kWells = {"P1", "P2"};
const Texts kItems = {"STATUS", "TYPE"};

std::string Begin() {
  return wire::Mess("REPLY");
}

std::string End(const std::string& message) {
  return message + wire::Mess("END");
}

template <class T>
std::string Written(const vk_ec::WellQueryResults<T>& results) {
  PROMISE(results.values.size() == results.wells.size());
  std::string message = Begin();
  message += wire::Data("QITEMS", results.items);
  for (std::size_t i = 0; i < results.wells.size(); ++i) {
    PROMISE(results.values[i].size() == results.items.size());
    message += wire::Text("WELLNAME", results.wells[i]);
    message += wire::Data("VALUES", results.values[i]);
  }
  return End(message);
}

template <class T>
std::string Written(const vk_ec::ReservoirQueryResults<T>& results) {
  PROMISE(results.values.size() == results.items.size());
  std::string message = Begin();
  for (std::size_t i = 0; i < results.items.size(); ++i) {
    message += wire::Text("QITEM", results.items[i]);
    message += wire::Data("VALUES", results.values[i]);
  }
  return End(message);
}

std::string Written(const vk_ec::WellConstraintResults& results) {
  PROMISE(results.items.size() == results.wells.size());
  PROMISE(results.values.size() == results.wells.size());
  PROMISE(results.setters.size() == results.wells.size());
  std::string message = Begin();
  for (std::size_t i = 0; i < results.wells.size(); ++i) {
    PROMISE(results.values[i].size() == results.items[i].size());
    PROMISE(results.setters[i].size() == results.items[i].size());
    message += wire::Text("WELLNAME", results.wells[i]);
    message += wire::Data("ITEMS", results.items[i]);
    message += wire::Data("VALUES", results.values[i]);
    message += wire::Data("SETTERS", results.setters[i]);
  }
  return End(message);
}

// The number of points of a well without curves is not kept; it is taken from the answer.
std::string Written(const vk_ec::IPRDataResults& results, std::string_view answer) {
  PROMISE(results.items.size() == results.wells.size());
  PROMISE(results.values.size() == results.wells.size());
  std::string message = Begin();
  for (std::size_t i = 0; i < results.wells.size(); ++i) {
    PROMISE(results.values[i].size() == results.items[i].size());
    message += wire::Text("WELLNAME", results.wells[i]);
    message += wire::Head("NPOINTS", 1, "INTE");
    PROMISE(answer.size() >= message.size() + sizeof(int));
    message += answer.substr(message.size(), sizeof(int));
    for (std::size_t curve = 0; curve < results.items[i].size(); ++curve) {
      PROMISE(results.values[i][curve].size() == results.values[i].front().size());
      message += wire::Text("ITEM", results.items[i][curve]);
      message += wire::Data("VALUES", results.values[i][curve]);
    }
  }
  return End(message);
}

std::string Written(const std::vector<vk_ec::ReservoirFluidModelDescription>& models) {
  std::string message = Begin();
  for (const auto& model : models) {
    PROMISE(model.eos_property_values.size() == model.eos_property_names.size());
    message += wire::Text("FLUIDMODELDNAME", model.fluid_model_name);
    message += wire::Text("EOSNAME", model.eos_name);
    message += wire::Data("NCOMPS", model.component_names);
    message += wire::Data("BIC", model.bic);
    for (std::size_t i = 0; i < model.eos_property_names.size(); ++i) {
      PROMISE(model.eos_property_values[i].size() == model.component_names.size());
      message += wire::Text("EOSPROPNAME", model.eos_property_names[i]);
      message += wire::Data("VALUES", model.eos_property_values[i]);
    }
  }
  return End(message);
}

std::string Empty() {
  return End(Begin());
}

// Answers that say nothing are as good as empty lists.
template <class Results>
bool Tells(const Results& results, std::string_view answer) {
  return Written(results) == answer || (results.wells.empty() && answer == Empty());
}

bool TellsComponents(const Texts& components, std::string_view answer, bool any_name) {
  if (components.empty() && answer == Empty()) return true;
  std::string_view name = "NCOMPS";
  wire::Header header;
  std::string_view after = answer;
  after.remove_prefix(std::min(Begin().size(), after.size()));
  if (any_name && wire::Take(after, header)) name = header.name;
  std::string message = Begin();
  message += wire::Data(name, components);
  return End(message) == answer;
}

// Carries an operation out. True when the answer, if it has one, was told as it is.
template <class Client>
bool Query(Client& client, int operation, std::string_view answer, bool is2016) {
  switch (operation) {
    case 0:
      return Tells(client.template get_properties_for_wells<double>(kWells, kItems), answer);
    case 1:
      return Tells(client.template get_properties_for_wells<std::string>(kWells, kItems), answer);
    case 2:
      return Written(client.template get_reservoir_properties<int>(kItems)) == answer;
    case 3:
      return Written(client.template get_reservoir_properties<std::string>(kItems)) == answer;
    case 4:
      return Written(client.get_constraints_for_wells(kWells)) == answer;
    case 5:
      return Written(client.get_ipr_data_for_wells(kWells, kWells, 3, 1), answer) == answer;
    case 6:
      return TellsComponents(client.get_field_management_fluid_model_description(), answer, is2016);
    case 7:
      return Written(client.get_reservoir_fluid_model_description()) == answer;
    case 8:
      client.set_status_for_wells(kWells, kItems, "USER");
      return true;
    case 9:
      client.set_uptime_fractions_for_wells(kWells, {0.5, 1});
      return true;
    default:
      client.set_constraints_for_wells({"P1"}, {{"A"}}, {{1}}, {{"USER"}});
      return true;
  }
}

// The setters of the later version.
bool SetSource(PairedClient<v2017_2::vk_ec::VarnokClient>& client, int operation,
               std::string_view answer) {
  if (operation == 11) {
    client.set_composition_of_fluid_source_external("S", {0.5}, {"C1"}, "");
    return true;
  }
  const bool accepted = client.create_attached_fluid_source_external("G1", "S", "GAS");
  std::string message = Begin();
  message += wire::Head("STRET", 1, "INTE");
  PROMISE(answer.size() >= message.size() + sizeof(int));
  const std::string_view code = answer.substr(message.size(), sizeof(int));
  message += code;
  PROMISE(accepted == (code != std::string_view("\0\0\0\0", 4)));
  return End(message) == answer;
}

constexpr int kOperations = 13;

bool HasReply(int operation) {
  return operation <= 7 || operation == 12;
}

std::string Ready() {
  std::string message;
  message += wire::Mess("READY");
  return End(message);
}

// The rest of the input, or the message that it is the script of.
std::string_view Answer(Input& input, bool scripted) {
  static std::string message;
  if (!scripted) return input.Rest();
  WriteMessage(input, message);
  return message;
}

// Nothing when the operation failed as it may.
template <class Operation>
std::optional<bool> Outcome(Operation operation) {
  try {
    return operation();
  } catch (const std::length_error&) {
  } catch (const std::invalid_argument&) {
  } catch (const boost::system::system_error&) {
  }
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::string stream;
  static const std::string proper_ready = Ready();
  Input input(data, size);
  const std::uint8_t mode = input.Byte();
  const int operation = (mode & 15) % kOperations;
  // A READY that is as it has to be leaves the input to the answer.
  const bool own_ready = (mode & 16) != 0;
  const bool is2016 = (mode & 32) != 0;
  std::string_view ready = own_ready ? input.Take(input.Byte()) : std::string_view(proper_ready);
  const std::string_view answer = Answer(input, (mode & 64) != 0);
  if (!HasReply(operation) && !own_ready) ready = answer;

  stream.clear();
  if (HasReply(operation)) stream += wire::Framed(answer);
  stream += wire::Framed(ready);
  memory_stream.Begin(stream);

  std::optional<bool> told;
  if (is2016 && operation <= 10) {
    PairedClient<v2016_2::vk_ec::VarnokClient> client;
    told = Outcome([&] { return Query(client, operation, answer, true); });
  } else {
    PairedClient<v2017_2::vk_ec::VarnokClient> client;
    told = Outcome([&] {
      return operation <= 10 ? Query(client, operation, answer, false)
                             : SetSource(client, operation, answer);
    });
  }
  PROMISE(told.value_or(true));
  // What was answered was read, to the end of the READY that has to be one.
  PROMISE(!told || (memory_stream.incoming.empty() && ready == proper_ready));
  return 0;
}
