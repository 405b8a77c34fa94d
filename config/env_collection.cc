#include "config/env_collection.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <new>
#include <string>

#include "config/regular_file.h"
#include "log/flog.h"

namespace {

template <std::size_t Size>
bool Assign(char (&field)[Size], const std::string& token) {
  if (token.size() >= Size) return false;
  memcpy(field, token.c_str(), token.size() + 1);
  return true;
}

// Reads the next token and keeps its first `most` characters, since a whole file may be one token.
// False when there is none.
bool ReadToken(FILE* in, std::string& token, std::size_t most) {
  token.clear();
  int next = getc(in);
  while (isspace(next) != 0) next = getc(in);
  for (; next != EOF && isspace(next) == 0; next = getc(in)) {
    if (token.size() < most) token += static_cast<char>(next);
  }
  return !token.empty();
}

}  // namespace

int CEnv::Apply(char* /*error*/, flog* log) const {
  const char* present = getenv(name);
  std::string wanted = value;
  if (present != nullptr) wanted.append(":").append(present);
  *log << std::string(present != nullptr ? "Setting existing environment variable "
                                         : "Setting non-existing environment variable ") +
              name + " to " + wanted + "\n";
  // A name with an equals sign is refused and sets nothing. A variable that there is no memory for
  // must not be missing from a run that goes on.
  if (setenv(name, wanted.c_str(), 1) != 0 && errno == ENOMEM) throw std::bad_alloc();
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
  // One character more than a field takes is kept: it shows that the token is too long.
  while (ReadToken(in, name, sizeof(CEnv::name))) {
    ReadToken(in, value, sizeof(CEnv::value));
    if (name[0] == '\0') break;
    auto entry = std::make_unique<CEnv>();
    // Both tokens are taken before either is judged, so that the pairs after it stay pairs.
    if (!Assign(entry->name, name) || !Assign(entry->value, value)) continue;
    *last = entry.release();
    last = &(*last)->next;
  }
}

int CEnvCollection::Apply(char* error, flog* log) const {
  for (const CEnv* entry = first_; entry != nullptr; entry = entry->next) entry->Apply(error, log);
  return 0;
}

void CEnvCollection::LogOut(flog* log) const {
  for (const CEnv* entry = first_; entry != nullptr; entry = entry->next) {
    *log << "Variable: " << static_cast<const char*>(entry->name)
         << ", Value: " << static_cast<const char*>(entry->value) << "\n";
  }
}
