#include "tests/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

// In a test program that is started without standard input, or output, the first socket that a test
// opens would have that number, and the redirection of a child would close it. So the null device
// has it from the start.
[[maybe_unused]] const bool kStandardDescriptorsAreOpen = [] {
  int opened = 0;
  do opened = open("/dev/null", O_RDWR);
  while (opened >= 0 && opened <= STDERR_FILENO);
  return close(opened) == 0;
}();

void Redirect(const std::string& file, int flags, int target) {
  const int opened = open(file.c_str(), flags, 0666);
  if (opened < 0) _exit(126);
  dup2(opened, target);
  if (opened != target) close(opened);
}

std::string MarkOf(pid_t parent, pid_t child) {
  return std::to_string(parent) + "." + std::to_string(child);
}

std::vector<pid_t> ProcessesMarked(const std::string& mark) {
  const std::string wanted = std::string(kChildMark) + "=" + mark;
  std::vector<pid_t> marked;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string number = entry.path().filename().string();
    if (number.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream file(entry.path() / "environ", std::ios::binary);
    for (std::string variable; std::getline(file, variable, '\0');) {
      if (variable == wanted) marked.push_back(std::stoi(number));
    }
  }
  return marked;
}

[[noreturn]] void RunChild(const std::vector<std::string>& arguments,
                           const ChildProcess::Options& options) {
  setpgid(0, 0);
  Redirect(options.input_file, O_RDONLY, STDIN_FILENO);
  Redirect(options.output_file, O_WRONLY | O_CREAT | O_APPEND, STDOUT_FILENO);
  if (options.error_file.empty()) {
    dup2(STDOUT_FILENO, STDERR_FILENO);
  } else {
    Redirect(options.error_file, O_WRONLY | O_CREAT | O_APPEND, STDERR_FILENO);
  }
  if (!options.directory.empty() && chdir(options.directory.c_str()) != 0) _exit(126);
  for (const std::string& variable : options.environment) {
    const std::size_t equals = variable.find('=');
    setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
  }
  setenv(kChildMark, MarkOf(getppid(), getpid()).c_str(), 1);
  if (options.in_child) {
    const int status = options.in_child();
    if (arguments.empty()) exit(status);
  }
  std::vector<char*> vector;
  vector.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    vector.push_back(const_cast<char*>(argument.c_str()));
  }
  vector.push_back(nullptr);
  execvp(vector[0], vector.data());
  _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, const Options& options) {
  // A child that runs the exit handlers writes out what it has inherited in the buffer.
  fflush(stdout);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) RunChild(arguments, options);
  setpgid(pid_, pid_);  // in both processes: whichever comes first
}

ChildProcess::~ChildProcess() {
  kill(-pid_, SIGTERM);
  if (!Wait(std::chrono::seconds(2))) kill(-pid_, SIGKILL);
  Wait(std::chrono::seconds(10));
  kill(-pid_, SIGKILL);  // what the process left behind in its group
  // And elsewhere. One of them may be starting another at this moment.
  const std::string mark = MarkOf(getpid(), pid_);
  Eventually([&mark] {
    const std::vector<pid_t> left = ProcessesMarked(mark);
    for (const pid_t pid : left) kill(pid, SIGKILL);
    return left.empty();
  });
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
  if (status_) return status_;
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  pollfd ended{handle, POLLIN, 0};
  const int ready = poll(&ended, 1, static_cast<int>(limit.count()));
  close(handle);
  if (ready <= 0) return std::nullopt;
  int status = 0;
  if (waitpid(pid_, &status, 0) != pid_) return std::nullopt;
  status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return status_;
}

void ChildProcess::Signal(int signal) const {
  kill(pid_, signal);
}

std::string ProgramDirectory() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

bool IsRunning(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return false;
  const std::size_t state = text.rfind(") ");  // after the name, which may hold anything
  return state != std::string::npos && text[state + 2] != 'Z' && text[state + 2] != 'X';
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
  const std::string id = std::to_string(parent);
  std::ifstream file("/proc/" + id + "/task/" + id + "/children");
  std::vector<pid_t> children;
  pid_t child = 0;
  while (file >> child) children.push_back(child);
  return children;
}

std::size_t OpenDescriptors(pid_t pid) {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

long StatusValue(pid_t pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with(name + ":")) {
      long value = -1;
      std::istringstream(line.substr(name.size() + 1)) >> value;
      return value;
    }
  }
  return -1;
}
