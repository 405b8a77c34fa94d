// A command of the stand-in for a scheduler, which answers in its stead: see `scheduler` beside
// this. Its name says which command it is. It is called some hundred times per site, so it is a
// program that starts fast.
//
//   ask_scheduler DIR WORD...     what the tests ask the stand-in in DIR
//   sbatch, qsub, ... WORD...     what a command asks the stand-in in the directory JOBMILL_FAKE

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

namespace {

[[noreturn]] void Fail(const char* what) {
  fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what, strerror(errno));
  exit(1);
}

void WriteAll(int descriptor, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = write(descriptor, bytes, size);
    if (written < 0) Fail("cannot write");
    bytes += written;
    size -= static_cast<size_t>(written);
  }
}

}  // namespace

int main(int argc, char** argv) {
  char current[PATH_MAX];
  if (getcwd(current, sizeof current) == nullptr) Fail("cannot tell the current directory");
  std::string question = std::string(current) + '\0' + program_invocation_short_name;
  const char* directory = getenv("JOBMILL_FAKE");
  int first = 1;
  if (strcmp(program_invocation_short_name, "ask_scheduler") == 0) directory = argv[first++];
  for (int i = first; i < argc; ++i) question += std::string(1, '\0') + argv[i];

  // The path of a socket is limited, that of a directory hardly.
  if (directory == nullptr || chdir(directory) != 0) Fail("there is no stand-in");
  const int link = socket(AF_UNIX, SOCK_STREAM, 0);
  const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "socket"};
  if (connect(link, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    Fail("the stand-in does not listen");
  }
  WriteAll(link, question.data(), question.size());
  shutdown(link, SHUT_WR);
  std::string answer;
  char bytes[4096];
  ssize_t size;
  while ((size = read(link, bytes, sizeof bytes)) > 0)
    answer.append(bytes, static_cast<size_t>(size));

  // Status, output and complaint.
  const size_t output = answer.find('\0') + 1;
  const size_t complaint = answer.find('\0', output) + 1;
  if (output == 0 || complaint == 0) Fail("the stand-in has not answered");
  WriteAll(STDOUT_FILENO, &answer[output], complaint - output - 1);
  WriteAll(STDERR_FILENO, &answer[complaint], answer.size() - complaint);
  return static_cast<int>(strtol(answer.c_str(), nullptr, 10));
}
