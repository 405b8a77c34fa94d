#include "master/request_writer.h"

#include <limits>

#include "master/errors.h"

namespace master {

RequestWriter::RequestWriter(std::uint32_t code) {
  Append(&code, sizeof(code));
}

void RequestWriter::Int(int value) {
  Append(&value, sizeof(value));
}

void RequestWriter::Count(std::size_t count) {
  if (count > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    throw RequestTooLong("A list of " + std::to_string(count) + " entries cannot be sent");
  }
  Int(static_cast<int>(count));
}

void RequestWriter::Double(double value) {
  Append(&value, sizeof(value));
}

void RequestWriter::FlagByte(bool value) {
  body_ += value ? '\1' : '\0';
}

void RequestWriter::String(const std::string& text) {
  Count(text.size());
  body_ += text;
}

void RequestWriter::Strings(const std::vector<std::string>& texts) {
  for (const std::string& text : texts) String(text);
}

void RequestWriter::Doubles(const std::vector<double>& values) {
  for (const double value : values) Double(value);
}

void RequestWriter::Append(const void* bytes, std::size_t size) {
  body_.append(static_cast<const char*>(bytes), size);
}

}  // namespace master
