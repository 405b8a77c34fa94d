#include "inspect/machine.h"

#include <netinet/tcp.h>

#include <algorithm>
#include <utility>

namespace inspect {
namespace {

std::optional<Jobmill> ReadJobmill(const ProcessStat& stat) {
  const auto process = Process::Open(stat.id);
  if (!process) return std::nullopt;
  Jobmill jobmill;
  jobmill.stat = process->stat();
  jobmill.user = process->User();
  jobmill.program = process->Link("exe");
  if (jobmill.program && BaseName(WithoutDeleted(*jobmill.program)) != kDaemonProgram) {
    return std::nullopt;
  }
  jobmill.files = process->Files();
  jobmill.options = ParseOptions(process->Arguments());
  return jobmill;
}

}  // namespace

std::string WithoutDeleted(std::string path) {
  if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
  return path;
}

std::string_view BaseName(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

std::string Jobmill::FileWith(std::string_view beginning, std::string_view end) const {
  for (const Process::OpenFile& file : files.value_or(std::vector<Process::OpenFile>())) {
    if (BaseName(file.target).starts_with(beginning) &&
        WithoutDeleted(file.target).ends_with(end)) {
      return file.target;
    }
  }
  return {};
}

std::string Jobmill::Target(int descriptor) const {
  for (const Process::OpenFile& file : files.value_or(std::vector<Process::OpenFile>())) {
    if (file.number == descriptor) return file.target;
  }
  return {};
}

Machine::Machine() {
  ReadProcesses();
  ReadSocketsAgain();
  if (!sockets_.error.empty()) missing_.push_back("sockets: " + sockets_.error);
  for (const auto& [pid, jobmill] : jobmills_) {
    if (!IsJobmill(jobmill.stat.parent) && IsListener(jobmill)) daemons_.insert(pid);
  }
}

void Machine::ReadProcesses() {
  for (ProcessStat& stat : AllProcesses()) {
    children_.emplace(stat.parent, stat.id.pid);
    processes_.emplace(stat.id.pid, std::move(stat));
  }
  if (!processes_.contains(1)) {
    missing_.emplace_back("processes of other accounts: they are hidden (hidepid)");
  }
  for (const auto& [pid, stat] : processes_) {
    if (stat.name != kDaemonProgram) continue;
    if (auto jobmill = ReadJobmill(stat)) jobmills_.emplace(pid, std::move(*jobmill));
  }
}

void Machine::ReadSocketsAgain() {
  sockets_ = ReadSockets();
  by_inode_.clear();
  for (const TcpSocket& socket : sockets_.all) {
    if (socket.inode != 0) by_inode_.emplace(socket.inode, socket);
  }
}

bool Machine::IsListener(const Jobmill& jobmill) const {
  if (!jobmill.files) {
    // No connection child leads a process group. A daemon that leads none either can only be known
    // by what it has open, and is taken for a child here.
    return jobmill.stat.group == jobmill.stat.id.pid;
  }
  return std::any_of(
      jobmill.files->begin(), jobmill.files->end(), [&](const Process::OpenFile& file) {
        const auto socket = by_inode_.find(InodeIn(file.target, "socket").value_or(0));
        return socket != by_inode_.end() && socket->second.state == TCP_LISTEN &&
               socket->second.local.port == jobmill.options.listen_port;
      });
}

std::vector<Link> Machine::LinksOf(const Jobmill& jobmill) const {
  std::vector<Link> links;
  for (const Process::OpenFile& file : jobmill.files.value_or(std::vector<Process::OpenFile>())) {
    const auto socket = by_inode_.find(InodeIn(file.target, "socket").value_or(0));
    if (socket != by_inode_.end()) links.push_back({file.number, socket->second});
  }
  return links;
}

std::optional<pid_t> Machine::OwnerOf(std::uint64_t inode, const std::set<uid_t>& users) {
  if (!owners_) {
    owners_.emplace();
    for (const auto& [pid, stat] : processes_) {
      if (IsJobmill(pid)) continue;
      const auto process = Process::Open(stat.id);
      if (!process || !users.contains(process->User().value_or(0))) continue;
      for (const auto& file : process->Files().value_or(std::vector<Process::OpenFile>())) {
        if (const auto found = InodeIn(file.target, "socket")) owners_->emplace(*found, pid);
      }
    }
  }
  const auto owner = owners_->find(inode);
  return owner == owners_->end() ? std::nullopt : std::optional(owner->second);
}

std::vector<ProcessStat> Machine::ChildrenOf(pid_t parent) const {
  std::vector<ProcessStat> all;
  const auto [begin, end] = children_.equal_range(parent);
  for (auto child = begin; child != end; ++child) all.push_back(processes_.at(child->second));
  return all;
}

std::vector<ProcessStat> Machine::Descendants(pid_t ancestor) const {
  std::vector<ProcessStat> all = ChildrenOf(ancestor);
  for (std::size_t i = 0; i < all.size(); ++i) {
    for (ProcessStat& child : ChildrenOf(all[i].id.pid)) all.push_back(std::move(child));
  }
  return all;
}

std::optional<Jobmill> Machine::ReadAgain(const Jobmill& jobmill) {
  ReadSocketsAgain();
  auto again = ReadJobmill(jobmill.stat);
  if (again) jobmills_[jobmill.stat.id.pid] = *again;
  return again;
}

}  // namespace inspect
