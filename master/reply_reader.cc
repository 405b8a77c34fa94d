#include "master/reply_reader.h"

#include <string.h>

#include <utility>

#include "master/errors.h"

namespace master {

ReplyReader::ReplyReader(std::string_view reply, std::uint32_t code, std::string request)
    : rest_(reply), request_(std::move(request)) {
  std::uint32_t got = 0;
  memcpy(&got, Take(sizeof(got), "its code").data(), sizeof(got));
  if (got != code) {
    Fail("it carries the code " + std::to_string(got) + " instead of " + std::to_string(code));
  }
}

int ReplyReader::Int() {
  int value = 0;
  memcpy(&value, Take(sizeof(value), "an integer").data(), sizeof(value));
  return value;
}

double ReplyReader::Double() {
  double value = 0;
  memcpy(&value, Take(sizeof(value), "a number").data(), sizeof(value));
  return value;
}

std::string ReplyReader::String() {
  const std::size_t length = Count(1);
  return std::string(Take(length, "a text"));
}

std::size_t ReplyReader::Count(std::size_t size) {
  const int count = Int();
  if (count < 0) Fail("it has a negative count, " + std::to_string(count));
  const auto wanted = static_cast<std::size_t>(count);
  if (wanted > rest_.size() / size) {
    Fail("it is too short: " + std::to_string(count) + " entries announced, " +
         std::to_string(rest_.size()) + " bytes left");
  }
  return wanted;
}

std::vector<std::string> ReplyReader::Strings(std::size_t count) {
  std::vector<std::string> texts;
  texts.reserve(count);
  for (std::size_t i = 0; i < count; ++i) texts.push_back(String());
  return texts;
}

std::vector<double> ReplyReader::Series() {
  std::vector<double> values(Count(sizeof(double)));
  for (double& value : values) value = Double();
  return values;
}

void ReplyReader::End() {
  const int acknowledgement = Int();
  if (acknowledgement != 0) {
    Fail("its acknowledgement is " + std::to_string(acknowledgement) + " instead of 0");
  }
  if (!rest_.empty()) Fail("it has " + std::to_string(rest_.size()) + " bytes too many");
}

std::string_view ReplyReader::Take(std::size_t size, const char* what) {
  if (size > rest_.size()) {
    Fail("it is too short: " + std::string(what) + " wanted, " + std::to_string(rest_.size()) +
         " bytes left");
  }
  const std::string_view taken = rest_.substr(0, size);
  rest_.remove_prefix(size);
  return taken;
}

void ReplyReader::Fail(const std::string& what) const {
  throw ProtocolError("Bad answer to " + request_ + ": " + what);
}

}  // namespace master
