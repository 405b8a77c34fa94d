#include "tools/jobmillctl/program.h"

int main(int argc, char** argv) {
  return jobmillctl::RunProgram(argc, argv);
}
