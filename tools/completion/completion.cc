#include "tools/completion/completion.h"

#include <cstdio>
#include <sstream>
#include <string_view>

#include <CLI/CLI.hpp>

namespace completion {
namespace {

// The options that the help lists.
std::vector<const CLI::Option*> OptionsOf(const CLI::App& app) {
  auto options =
      app.get_options([](const CLI::Option* option) { return !option->get_group().empty(); });
  // CLI11 keeps the options of a group in a subcommand without a name, which has a --help, too.
  for (const CLI::App* group :
       app.get_subcommands([](const CLI::App* each) { return each->get_name().empty(); })) {
    for (const CLI::Option* option : OptionsOf(*group)) {
      if (option != group->get_help_ptr()) options.push_back(option);
    }
  }
  return options;
}

std::vector<const CLI::App*> SubcommandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* each) { return !each->get_name().empty(); });
}

const CLI::App* SubcommandOf(const CLI::App& app, const std::string& name) {
  for (const CLI::App* command : SubcommandsOf(app)) {
    if (command->check_name(name)) return command;
  }
  return nullptr;
}

void Add(Answer& answer, const std::string& begin, const std::string& word,
         const std::string& help) {
  if (word.starts_with(begin)) answer.candidates.push_back({word, help});
}

// The values of `option` that begin with `begin`, with `before` in front of them.
Answer ValuesOf(const CLI::Option& option, const std::string& begin,
                const std::string& before = "") {
  const std::string type = option.get_type_name();
  Answer answer;
  const std::size_t open = type.find('{');
  if (open != std::string::npos) {
    std::istringstream values(type.substr(open + 1, type.find('}', open) - open - 1));
    for (std::string value; std::getline(values, value, ',');) {
      Add(answer, before + begin, before + value, "");
    }
  }
  if (type.find("FILE") != std::string::npos) answer.names = "files";
  if (type.find("DIR") != std::string::npos) answer.names = "directories";
  return answer;
}

// The app whose options may follow the subcommand `app`, too; null for none.
const CLI::App* FallthroughOf(const CLI::App& app) {
  return app.get_fallthrough() ? app.get_parent() : nullptr;
}

const CLI::Option* OptionOf(const CLI::App& app, const std::string& name) {
  const CLI::Option* option = app.get_option_no_throw(name);
  const CLI::App* parent = FallthroughOf(app);
  return option == nullptr && parent != nullptr ? OptionOf(*parent, name) : option;
}

Answer OptionsThatBegin(const CLI::App& app, const std::string& begin) {
  const std::size_t equals = begin.find('=');
  if (equals != std::string::npos) {
    const CLI::Option* option = OptionOf(app, begin.substr(0, equals));
    if (option == nullptr) return {};
    return ValuesOf(*option, begin.substr(equals + 1), begin.substr(0, equals + 1));
  }
  Answer answer;
  for (const CLI::Option* option : OptionsOf(app)) {
    for (const std::string& name : option->get_lnames()) {
      Add(answer, begin, "--" + name, option->get_description());
    }
    if (!option->get_lnames().empty()) continue;
    for (const std::string& name : option->get_snames()) {
      Add(answer, begin, "-" + name, option->get_description());
    }
  }
  if (const CLI::App* parent = FallthroughOf(app)) {
    const Answer more = OptionsThatBegin(*parent, begin);
    answer.candidates.insert(answer.candidates.end(), more.candidates.begin(),
                             more.candidates.end());
  }
  return answer;
}

// The positional that comes after `count` others.
const CLI::Option* PositionalOf(const CLI::App& app, std::size_t count) {
  for (const CLI::Option* option : OptionsOf(app)) {
    if (!option->get_positional()) continue;
    const auto most = static_cast<std::size_t>(option->get_items_expected_max());
    if (count < most) return option;
    count -= most;
  }
  return nullptr;
}

}  // namespace

std::optional<Words> Asked(int argc, const char* const* argv) {
  if (argc < 2 || std::string_view(argv[1]) != "--complete") return std::nullopt;
  Words words(argv + 2, argv + argc);
  if (words.empty()) words.emplace_back();
  return words;
}

Answer Complete(const CLI::App& app, const Words& words,
                const std::function<Answer(const Words&)>& commands) {
  const CLI::App* command = &app;
  const CLI::Option* option = nullptr;  // whose value comes next
  std::size_t positionals = 0;
  for (auto word = words.begin(); word + 1 != words.end(); ++word) {
    if (option != nullptr) {
      // bash takes "--option=value" for three words.
      if (*word != "=") option = nullptr;
    } else if (*word == "--") {
      return {};
    } else if (word->starts_with('-')) {
      option = OptionOf(*command, *word);
      if (option != nullptr && option->get_items_expected_max() == 0) option = nullptr;
    } else if (const CLI::App* subcommand = SubcommandOf(*command, *word)) {
      command = subcommand;
      positionals = 0;
    } else if (command->get_prefix_command()) {
      return commands(Words(word, words.end()));
    } else {
      ++positionals;
    }
  }
  const std::string& begin = words.back();
  if (option != nullptr) return ValuesOf(*option, begin == "=" ? "" : begin);
  if (begin.starts_with('-')) return OptionsThatBegin(*command, begin);
  if (command->get_prefix_command()) return commands({begin});
  Answer answer;
  for (const CLI::App* subcommand : SubcommandsOf(*command)) {
    Add(answer, begin, subcommand->get_name(), subcommand->get_description());
  }
  if (!answer.candidates.empty()) return answer;
  const CLI::Option* positional = PositionalOf(*command, positionals);
  return positional == nullptr ? answer : ValuesOf(*positional, begin);
}

void Print(const Answer& answer) {
  for (const Candidate& candidate : answer.candidates) {
    std::printf("%s\t%s\n", candidate.word.c_str(), candidate.help.c_str());
  }
  if (!answer.names.empty()) std::printf(":%s\n", answer.names.c_str());
}

}  // namespace completion
