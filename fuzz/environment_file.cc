// The environment file: each pair of words is applied in its turn, a variable that exists gets the
// value in front of its own, words that are too long leave the pairing of the others alone, and a
// name without characters is the end.

#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/env_collection.h"
#include "fuzz/support/input.h"
#include "fuzz/support/memory_file.h"
#include "fuzz/support/promise.h"
#include "log/flog.h"

namespace {

struct Variable {
  std::string name;
  std::string value;
  bool operator==(const Variable&) const = default;
};
using Environment = std::vector<Variable>;

constexpr std::size_t kLongestWord = 255;

Variable* Find(Environment& environment, std::string_view name) {
  for (Variable& variable : environment) {
    if (variable.name == name) return &variable;
  }
  return nullptr;
}

void Set(Environment& environment, std::string_view name, std::string_view value) {
  // The system refuses such names.
  if (name.empty() || name.find('=') != std::string_view::npos) return;
  Variable* present = Find(environment, name);
  if (present == nullptr) present = &environment.emplace_back(Variable{std::string(name), {}});
  present->value = value;
}

std::vector<std::string_view> Words(std::string_view text) {
  constexpr std::string_view blanks = " \t\n\v\f\r";
  std::vector<std::string_view> words;
  while (true) {
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return words;
    text.remove_prefix(begin);
    const std::size_t end = std::min(text.find_first_of(blanks), text.size());
    words.push_back(text.substr(0, end));
    text.remove_prefix(end);
  }
}

std::string_view UpToZero(std::string_view word) {
  return word.substr(0, word.find('\0'));
}

void Expect(std::string_view file, Environment& environment) {
  const std::vector<std::string_view> words = Words(file);
  for (std::size_t i = 0; i < words.size(); i += 2) {
    if (words[i].front() == '\0') break;  // no name
    const std::string_view second = i + 1 < words.size() ? words[i + 1] : std::string_view();
    if (words[i].size() > kLongestWord || second.size() > kLongestWord) continue;
    const std::string_view name = UpToZero(words[i]);
    std::string value(UpToZero(second));
    if (const Variable* present = Find(environment, name)) value += ":" + present->value;
    Set(environment, name, value);
  }
}

}  // namespace

namespace {

// This process's variables in the place of its real ones, for as long as one of these exists.
class Environs {
 public:
  explicit Environs(const Environment& variables) : real_(environ) {
    for (const Variable& variable : variables)
      texts_.push_back(variable.name + "=" + variable.value);
    for (std::string& text : texts_) pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
    environ = pointers_.data();
  }
  Environs(const Environs&) = delete;
  Environs& operator=(const Environs&) = delete;
  ~Environs() { environ = real_; }

  static Environment Now() {
    Environment variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
      const std::string_view text = *variable;
      const std::size_t equals = text.find('=');
      PROMISE(equals != std::string_view::npos);
      variables.push_back(
          {std::string(text.substr(0, equals)), std::string(text.substr(equals + 1))});
    }
    return variables;
  }

 private:
  char** real_;
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static MemoryFile file;
  static flog log("", true);
  static const Environment before = {{"PATH", "/bin"}, {"EMPTY", ""}, {"OMP_NUM_THREADS", "2"}};
  const std::string_view text = Input(data, size).Rest();
  file.Write(text);
  Environment expected = before;
  Expect(text, expected);

  const CEnvCollection entries(file.path().c_str());
  PROMISE(entries.status() == 0);
  const Environs environs(before);
  char error[CEnvCollection::kErrorSize] = "";
  const int result = entries.Apply(error, &log);
  PROMISE(result == 0 && error[0] == '\0');
  PROMISE(Environs::Now() == expected);
  entries.LogOut(&log);
  return 0;
}
