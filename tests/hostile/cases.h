#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// One connection to a daemon, with what it does and what has to come of it. The files' format,
/// which says what each member is for, stands in README.md.
struct Case {
  std::string name;
  std::string file;  ///< where it stands
  std::map<std::string, std::string> variables;

  std::vector<std::string> arguments;  ///< of the daemon
  std::string start;
  std::vector<std::string> steps;
  std::map<std::string, std::string> fields;
  /// Configuration files and script: content, and what stands in its place ("directory").
  std::map<std::string, std::string> files;

  std::optional<std::string> log;
  std::string comms;
  std::string comms_file;
  std::string end;
  std::string refusal;
  std::int64_t exit = 0;
  std::optional<std::int64_t> script_exit;
  std::optional<std::int64_t> user;
  std::int64_t memory = 0;     ///< MiB
  std::int64_t processor = 0;  ///< milliseconds

  /// All of it but the name, to find copies.
  std::string Content() const;
};

/// The cases of all files of one family's directory, those of tables written out. Throws
/// std::runtime_error, with the file, when one cannot be read, says something unknown, or holds a
/// name or a content that another case has as well.
std::vector<Case> ReadCases(const std::string& directory);

/// Replaces each ${name} that `variables` know, also in what was put in. What is unknown stays.
std::string Replace(std::string text, const std::map<std::string, std::string>& variables);
