#include "config/env_collection.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iomanip>
#include <istream>
#include <memory>
#include <string>

#include "log/flog.h"

namespace {

template <std::size_t Size>
bool Assign(char (&field)[Size], const std::string& token) {
  if (token.size() >= Size) return false;
  memcpy(field, token.c_str(), token.size() + 1);
  return true;
}

// The next token, of which at most `most` characters are kept and one more, so that its length
// shows: a file that is one long token is no reason to hold it. False when there is none.
bool ReadToken(std::istream& in, std::string& token, int most) {
  token.clear();
  if (!(in >> std::setw(most + 1) >> token)) return false;
  if (token.size() > static_cast<std::size_t>(most)) {
    for (int next = in.peek(); next != EOF && isspace(next) == 0; next = in.peek()) in.ignore();
  }
  return true;
}

// Only a file can be read to its end: a pipe has none before somebody writes, a device perhaps
// never.
bool IsFile(const char* file) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(file, ignored);
}

}  // namespace

int CEnv::Apply(char* /*error*/, flog* log) const {
  const char* present = getenv(name);
  std::string wanted = value;
  if (present != nullptr) wanted.append(":").append(present);
  *log << (present != nullptr ? "Setting existing environment variable "
                              : "Setting non-existing environment variable ")
       << static_cast<const char*>(name) << " to " << wanted << "\n";
  setenv(name, wanted.c_str(), 1);
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
  if (!IsFile(file)) return 0;
  std::ifstream in(file);
  // Otherwise the stream would keep a failed allocation to itself, and the half of the file that
  // was read would pass for the whole.
  in.exceptions(std::ios::badbit);
  try {
    ReadEntries(in);
  } catch (const std::ios::failure&) {
    // Not readable, such as a directory: that is the end of it.
  }
  return 0;
}

void CEnvCollection::ReadEntries(std::istream& in) {
  CEnv** last = &first_;
  std::string name;
  std::string value;
  while (ReadToken(in, name, sizeof(CEnv::name) - 1)) {
    ReadToken(in, value, sizeof(CEnv::value) - 1);
    auto entry = std::make_unique<CEnv>();
    // Both tokens are taken before either is judged, so that the pairs behind stay pairs.
    if (!Assign(entry->name, name) || !Assign(entry->value, value)) continue;
    *last = entry.release();
    last = &(*last)->next;
  }
}

int CEnvCollection::Apply(char* error, flog* log) const {
  for (const CEnv* entry = first_; entry != nullptr; entry = entry->next) {
    if (entry->Apply(error, log) > 0) return 1;
  }
  return 0;
}

void CEnvCollection::LogOut(flog* log) const {
  for (const CEnv* entry = first_; entry != nullptr; entry = entry->next) {
    *log << "Variable: " << static_cast<const char*>(entry->name)
         << ", Value: " << static_cast<const char*>(entry->value) << "\n";
  }
}
