#include "tools/vkgate/program.h"

int main(int argc, char** argv) {
  return vkgate::RunProgram(argc, argv);
}
