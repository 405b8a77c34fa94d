#include "tools/vkmaster/program.h"

int main(int argc, char** argv) {
  return vkmaster::RunProgram(argc, argv);
}
