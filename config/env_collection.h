#pragma once

#include <stdio.h>

#include <array>
#include <cstdint>

class flog;

/// One variable of the environment file.
struct CEnv {
  /// Sets the variable in this process; one that exists already gets `value` and ":" in front of
  /// what it holds, since most of what sites set are search paths. Says so in the log. Returns 0.
  /// Throws std::bad_alloc.
  int Apply(char* error, flog* log) const;

  char name[256] = {};
  char value[256] = {};
  CEnv* next = nullptr;
};

/// The environment file: the variables that every run of the site needs.
///
/// A sequence of names and values in turn, separated by blanks, tabs or line ends of any number;
/// so neither can contain any. There are no comments and no quotes.
class CEnvCollection {
 public:
  /// The size of the `error` buffers of ReadEnvFile() and Apply().
  static constexpr int kErrorSize = 256;

  /// Reads `file`.
  explicit CEnvCollection(const char* file);
  CEnvCollection(const CEnvCollection&) = delete;
  CEnvCollection& operator=(const CEnvCollection&) = delete;
  ~CEnvCollection();

  /// Result and text of the constructor's reading.
  std::int32_t status() const { return status_; }
  const char* error() const { return error_.data(); }

  /// Replaces the entries by those of `file`. A name that begins with a zero byte ends the reading.
  /// Returns 0, also when there is no such file: a site need not have one. A pipe, a device or a
  /// directory counts as no file. A last name without a value has an empty one. An entry whose name
  /// or value is longer than 255 characters is left out.
  int ReadEnvFile(const char* file, char* error);

  /// The first entry, and through `next` the others; null when there is none. The collection keeps
  /// them.
  const CEnv* first() const { return first_; }

  /// Applies the entries in the order of the file, each as CEnv::Apply() does. Returns 0; 1 with a
  /// text in `error` is kept for an entry that fails.
  int Apply(char* error, flog* log) const;

  /// Lists the entries in the log.
  void LogOut(flog* log) const;

  void Reset();

 private:
  void ReadEntries(FILE* in);

  std::int32_t status_ = 0;
  std::array<char, kErrorSize> error_{};
  CEnv* first_ = nullptr;
};
