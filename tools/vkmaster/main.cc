#include "tools/vkmaster/program.h"

#ifdef _WIN32
#include <string>
#include <vector>

#include "tools/vkmaster/system/wide.h"

int wmain(int argc, wchar_t** wide) {
  std::vector<std::string> arguments;
  for (int i = 0; i < argc; ++i) arguments.push_back(vkmaster::Narrow(wide[i]));
  std::vector<const char*> argv;
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  argv.push_back(nullptr);
  return vkmaster::RunProgram(argc, argv.data());
}
#else
int main(int argc, char** argv) {
  return vkmaster::RunProgram(argc, argv);
}
#endif
