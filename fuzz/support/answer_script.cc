#include "fuzz/support/answer_script.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string_view>
#include <vector>

#include "fuzz/support/memory_stream.h"
#include "fuzz/support/wire.h"

namespace {

constexpr std::size_t kMost = 8192;

constexpr std::array<std::string_view, 27> kNames = {
    "REPLY",       "READY",           "END",     "QITEMS", "QITEM",   "WELLNAME", "VALUES",
    "STEP",        "POSITION",        "TIME",    "DATE",   "STARTED", "ERRORS",   "FINISHED",
    "ITEMS",       "SETTERS",         "NPOINTS", "ITEM",   "NCOMPS",  "BIC",      "EOSNAME",
    "EOSPROPNAME", "FLUIDMODELDNAME", "STRET",   "SET",    "",        "BOGUS"};

constexpr std::array<std::string_view, 52> kWords = {"P1",
                                                     "P2",
                                                     "I1",
                                                     "*",
                                                     "",
                                                     "OPEN",
                                                     "SHUT",
                                                     "PRODUCER",
                                                     "WATER_INJECTOR",
                                                     "GAS_INJECTOR",
                                                     "TYPE",
                                                     "STATUS",
                                                     "OIL_PRODUCTION_RATE",
                                                     "GAS_PRODUCTION_RATE",
                                                     "WATER_PRODUCTION_RATE",
                                                     "WATER_INJECTION_RATE",
                                                     "GAS_INJECTION_RATE",
                                                     "UPTIME_FRACTION",
                                                     "BOTTOM_HOLE_PRESSURE",
                                                     "TUBING_HEAD_PRESSURE",
                                                     "TEMPERATURE",
                                                     "GAS_DENSITY",
                                                     "WATER_DENSITY",
                                                     "OIL_DENSITY",
                                                     "TOTAL_MOLE_FRACTION[1]",
                                                     "TOTAL_MOLE_FRACTION[2]",
                                                     "VK_VERSION",
                                                     "2017.2",
                                                     "UNIT_SYSTEM",
                                                     "TOLMEN_METRIC",
                                                     "TOLMEN_ENGLISH",
                                                     "FM_FLUID_MODEL",
                                                     "RES_FLUID_MODEL",
                                                     "COMPOSITIONAL",
                                                     "BLACK_OIL",
                                                     "START_DATE",
                                                     "MODEL_DEFINITION",
                                                     "BEGIN_NEWTON",
                                                     "END_SIMULATE",
                                                     "STARTING",
                                                     "Molecular weight",
                                                     "TCrit",
                                                     "PCrit",
                                                     "VCRIT",
                                                     "Acentric factor",
                                                     "BP",
                                                     "VSHIFT",
                                                     "OMEGAA",
                                                     "OMEGAB",
                                                     "Parachor",
                                                     "1e999",
                                                     "C1"};

std::string_view Word(std::uint8_t byte) {
  return kWords[byte % kWords.size()];
}

double Number(std::uint8_t byte) {
  switch (byte) {
    case 255:
      return std::numeric_limits<double>::quiet_NaN();
    case 254:
      return std::numeric_limits<double>::infinity();
    case 253:
      return -1e300;
    default:
      return byte * 12.5;
  }
}

int Integer(std::uint8_t byte) {
  constexpr int year = 1900;
  if (byte == 255) return std::numeric_limits<int>::min();
  if (byte == 254) return std::numeric_limits<int>::max();
  return byte < 100 ? byte : year + byte;
}

void WriteData(Input& input, unsigned type, std::string_view name, std::string& message) {
  const std::size_t count = input.Byte() & 15U;
  constexpr std::array<std::string_view, 4> tags = {"MESS", "DOUB", "INTE", "CSTR"};
  message += wire::Head(name, count, tags[type]);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t byte = input.Byte();
    if (type == 1) {
      message += Image(Number(byte));
    } else if (type == 2) {
      message += Image(Integer(byte));
    } else {
      message += wire::LongText(Word(byte));
    }
  }
}

// Writes the header, with its data, that begins with `byte`.
void WriteItem(std::uint8_t byte, Input& input, std::string& message) {
  const unsigned type = byte >> 6;
  const std::string_view name = kNames[(byte & 63U) % kNames.size()];
  if (byte == 60) {
    message += input.Take(input.Byte());
  } else if (type == 0) {
    message += wire::Mess(name);
  } else {
    WriteData(input, type, name, message);
  }
}

}  // namespace

void WriteMessage(Input& input, std::string& message) {
  message.clear();
  while (!input.empty() && message.size() < kMost) WriteItem(input.Byte(), input, message);
}

void WriteAnswers(Input& input, std::string& stream) {
  static std::string message;
  message.clear();
  std::size_t repeat_from = std::string::npos;
  const auto end_message = [&] {
    message += wire::Mess("END");
    stream += wire::Framed(message);
    message.clear();
  };
  while (!input.empty() && stream.size() < kMost) {
    const std::uint8_t byte = input.Byte();
    if (byte == 61) {
      repeat_from = stream.size();
    } else if (byte == 62) {
      end_message();
    } else if (byte == 63) {
      message += wire::Mess("READY");
      end_message();
    } else {
      WriteItem(byte, input, message);
    }
  }
  if (!message.empty()) stream += wire::Framed(message);
  if (repeat_from >= stream.size()) return;
  const std::string again = stream.substr(repeat_from);
  while (stream.size() + again.size() < kMost) stream += again;
}
