// The daemon's command line: whatever the arguments are, the options are those that the rules say
// and no number is below its bound.

#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/options.h"
#include "fuzz/support/input.h"
#include "fuzz/support/promise.h"

namespace {

class Arguments {
 public:
  explicit Arguments(const std::vector<const char*>& arguments) : arguments_(arguments) {
    for (last_ = 0; last_ < arguments.size(); ++last_) {
      const std::string_view argument = arguments[last_];
      if (argument == "-v" || argument == "-V") break;
    }
  }

  bool Version() const { return last_ < arguments_.size(); }
  bool Has(char letter) const { return ValueOf(letter, true) != nullptr; }

  std::int32_t NumberOf(char letter, std::int32_t otherwise, std::int32_t least) const {
    const char* value = ValueOf(letter, true);
    if (value == nullptr) return otherwise;
    return std::max(static_cast<std::int32_t>(strtol(value, nullptr, 10)), least);
  }
  std::string_view TextOf(char letter) const {
    const char* value = ValueOf(letter, false);
    return value == nullptr ? std::string_view() : value;
  }

 private:
  // The value of the last option of that letter: what follows it, or at the end itself.
  const char* ValueOf(char letter, bool upper_too) const {
    for (std::size_t i = last_; i-- > 0;) {
      const std::string_view option = arguments_[i];
      if (option.size() != 2 || option[0] != '-') continue;
      const bool upper = upper_too && option[1] == letter - 'a' + 'A';
      if (option[1] == letter || upper) return arguments_[std::min(i + 1, arguments_.size() - 1)];
    }
    return nullptr;
  }

  const std::vector<const char*>& arguments_;
  std::size_t last_ = 0;  // the version option, or the end
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::int32_t lowest = INT32_MIN;
  const std::string text(Input(data, size).Rest());
  std::vector<const char*> arguments;
  for (std::size_t at = 0; at < text.size(); ++at) {
    arguments.push_back(text.c_str() + at);
    at += std::string_view(arguments.back()).size();  // to its zero byte
  }
  std::vector<const char*> argv = {"vkjobmill.exe"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  const auto argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);

  const Options options = ParseOptions(argc, argv.data());
  const Arguments expected(arguments);
  PROMISE(options.version == expected.Version());
  PROMISE(options.run_as_root == !expected.Has('u'));
  PROMISE(options.comms_log == expected.Has('l'));
  PROMISE(options.listen_port == expected.NumberOf('p', 0, lowest));
  PROMISE(options.start_timeout == expected.NumberOf('t', 60, 5));
  PROMISE(options.comms_base_port == expected.NumberOf('o', 9001, 2048));
  PROMISE(options.comms_ports == expected.NumberOf('n', 100, 2));
  PROMISE(options.script == expected.TextOf('s'));
  return 0;
}
