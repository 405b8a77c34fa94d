#include "config/env_collection.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "config/regular_file.h"
#include "log/flog.h"

namespace {

template <std::size_t Size>
bool Assign(char (&field)[Size], const std::string& token) {
  if (token.size() >= Size) return false;
  memcpy(field, token.c_str(), token.size() + 1);
  return true;
}

// The next token, of which at most `most` characters are kept: a file that is one long token is no
// reason to hold it. False when there is none.
bool ReadToken(FILE* in, std::string& token, std::size_t most) {
  token.clear();
  int next = getc(in);
  while (isspace(next) != 0) next = getc(in);
  for (; next != EOF && isspace(next) == 0; next = getc(in)) {
    if (token.size() < most) token += static_cast<char>(next);
  }
  return !token.empty();
}

// The value that an entry gives its variable, which holds `present` or nothing. Says so in the log.
std::string Extended(const CEnv& entry, const char* present, flog* log) {
  std::string wanted = entry.value;
  if (present != nullptr) wanted.append(":").append(present);
  *log << std::string(present != nullptr ? "Setting existing environment variable "
                                         : "Setting non-existing environment variable ") +
              entry.name + " to " + wanted + "\n";
  return wanted;
}

// The environment of this process while many entries are applied to it. setenv() looks through all
// of it each time, and a file of a hundred thousand pairs would take a minute.
class Environment {
 public:
  Environment() {
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
      const char* equals = strchr(*variable, '=');
      if (equals != nullptr)
        positions_.try_emplace(std::string(static_cast<const char*>(*variable), equals),
                               variables_.size());
      variables_.emplace_back(*variable);
    }
  }

  // As getenv() and setenv().
  const char* Get(const std::string& name) const {
    const auto found = positions_.find(name);
    if (found == positions_.end()) return nullptr;
    return variables_[found->second].c_str() + name.size() + 1;
  }
  void Set(const std::string& name, const std::string& value) {
    if (name.find('=') != std::string::npos) return;
    const auto [place, fresh] = positions_.try_emplace(name, variables_.size());
    if (fresh) variables_.emplace_back();
    variables_[place->second] = name + "=" + value;
  }

  // Makes it the process's own, up to the next one. Never destroyed: what runs at the process's end
  // may still look at a variable.
  void Install() && {
    static auto& variables = *new std::vector<std::string>();
    static auto& pointers = *new std::vector<char*>();
    std::vector<char*> fresh;
    fresh.reserve(variables_.size() + 1);
    for (std::string& variable : variables_) fresh.push_back(variable.data());
    fresh.push_back(nullptr);
    environ = fresh.data();
    variables.swap(variables_);
    pointers.swap(fresh);
  }

 private:
  std::vector<std::string> variables_;
  std::unordered_map<std::string, std::size_t> positions_;
};

}  // namespace

int CEnv::Apply(char* /*error*/, flog* log) const {
  setenv(name, Extended(*this, getenv(name), log).c_str(), 1);
  return 0;
}

CEnvCollection::CEnvCollection(const char* file) {
  status_ = ReadEnvFile(file, error_.data());
}

CEnvCollection::~CEnvCollection() {
  Reset();
}

void CEnvCollection::Reset() {
  while (first_ != nullptr) {
    const std::unique_ptr<CEnv> gone(first_);
    first_ = gone->next;
  }
}

int CEnvCollection::ReadEnvFile(const char* file, char* /*error*/) {
  Reset();
  if (!IsRegularFile(file)) return 0;
  const std::unique_ptr<FILE, int (*)(FILE*)> in(fopen(file, "re"), fclose);
  if (in) {
    ReadEntries(in.get());
  } else if (errno == ENOMEM) {
    throw std::bad_alloc();
  }
  return 0;
}

void CEnvCollection::ReadEntries(FILE* in) {
  CEnv** last = &first_;
  std::string name;
  std::string value;
  // One character more than fits, so that a token that is too long is known for one.
  while (ReadToken(in, name, sizeof(CEnv::name))) {
    ReadToken(in, value, sizeof(CEnv::value));
    if (name[0] == '\0') break;
    auto entry = std::make_unique<CEnv>();
    // Both tokens are taken before either is judged, so that the pairs behind stay pairs.
    if (!Assign(entry->name, name) || !Assign(entry->value, value)) continue;
    *last = entry.release();
    last = &(*last)->next;
  }
}

int CEnvCollection::Apply(char* /*error*/, flog* log) const {
  if (first_ == nullptr) return 0;
  Environment variables;
  for (const CEnv* entry = first_; entry != nullptr; entry = entry->next) {
    variables.Set(entry->name, Extended(*entry, variables.Get(entry->name), log));
  }
  std::move(variables).Install();
  return 0;
}

void CEnvCollection::LogOut(flog* log) const {
  for (const CEnv* entry = first_; entry != nullptr; entry = entry->next) {
    *log << "Variable: " << static_cast<const char*>(entry->name)
         << ", Value: " << static_cast<const char*>(entry->value) << "\n";
  }
}
