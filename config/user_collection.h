#pragma once

// This folder reads what the administrator writes: the two files beside the executable, who may
// start runs (this one) and which environment the runs get (env_collection), which every connection
// child reads afresh, and the daemon's command line (options). It is apart from the daemon because
// what is let in here decides about access, so that each is tried and fuzzed by itself, and because
// what judges an installation from outside has to read as the daemon does.

#include <cstdint>
#include <string>

class flog;

/// One line of the user administration file.
struct CVKUser {
  char windows_name[256] = {};
  char linux_name[256] = {};
  std::int32_t allow = 0;  ///< 0 denies
  CVKUser* next = nullptr;
};

/// The user administration file: which Windows users may start runs, and as which Linux account.
///
/// A plain text, one user a line: Windows name, blank, Linux name, blank, 1 (allowed) or 0. The
/// Windows name "*" stands for everybody who is not listed, the Linux name "*" for the same name
/// as the Windows one. There are no comments. The first line without three fields ends the file.
class CVKUserCollection {
 public:
  /// The size of the `error` buffer that ReadUserFile() needs.
  static constexpr int kErrorSize = 2048;

  CVKUserCollection() = default;
  CVKUserCollection(const CVKUserCollection&) = delete;
  CVKUserCollection& operator=(const CVKUserCollection&) = delete;
  ~CVKUserCollection();

  /// Replaces the records by those of ".vk_corvane_users" in `directory`. Returns 0, or 1 with a
  /// text in `error` (kErrorSize bytes) when the file cannot be opened or is no regular one.
  /// Reading stops, with what was read kept, at the first line that has no three fields, that is
  /// longer than 1,023 characters or has a name longer than 255; a read that fails leaves no
  /// records at all, so nobody has access. `log` is not written to.
  int ReadUserFile(const char* directory, flog* log, char* error);

  /// The record of `windows_user`, in any letter case; failing that the last "*" record; null when
  /// there is neither. The collection keeps it.
  CVKUser* GetUser(const char* windows_user);

  /// The record of the file's first line, and through `next` those of the lines below it, one each;
  /// null when there is none. The collection keeps them.
  const CVKUser* first() const { return first_; }

  /// Lists the records in the log.
  void LogOut(flog* log) const;

  void Reset();

 private:
  CVKUser* first_ = nullptr;
};

/// What a master is told whose user the file does not let in, or whose account is none of this
/// machine's. Names end at their first zero byte, as for the look-ups.
std::string NotFoundText(const std::string& windows_user);
std::string NotAllowedText(const std::string& windows_user);
std::string NoAccountText(const std::string& account);
