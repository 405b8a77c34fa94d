#pragma once

#include <memory>
#include <optional>
#include <string>

namespace vkmaster {

class Interrupt;

/// Lines of commands from a pipe or the prompt.
class LineSource {
 public:
  virtual ~LineSource() = default;

  /// The next line without its newline; nothing at the end. Blocks.
  virtual std::optional<std::string> Next() = 0;
};

/// The lines of standard input. They end early with a signal.
std::unique_ptr<LineSource> StandardInput(const Interrupt& interrupt);

#ifndef _WIN32
/// Lines of a pipe or a file.
class DescriptorLines : public LineSource {
 public:
  /// Both descriptors stay the caller's. The input ends early when `wake` becomes readable.
  DescriptorLines(int descriptor, int wake) : descriptor_(descriptor), wake_(wake) {}

  std::optional<std::string> Next() override;

 private:
  bool Fill();

  int descriptor_;
  int wake_;
  bool ended_ = false;
  std::string buffer_;
};
#endif

}  // namespace vkmaster
