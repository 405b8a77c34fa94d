#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/options.h"
#include "inspect/comms_log.h"
#include "inspect/history.h"

namespace inspect {

/// How far a connection has come, by the last of its lines.
enum class Step {
  kAccepted,
  kAnswered,
  kGreeted,
  kCluster,
  kPath,
  kRoot,
  kProcesses,
  kVersion,
  kUser,
  kDebug,
  kUsers,
  kAccount,
  kCopying,
  kCopied,
  kArguments,
  kArgument1,
  kArgument2,
  kArgument3,
  kArgument4,
  kArgument5,
  kArgument6,
  kScript,    ///< the script runs and has named no host
  kMixed,     ///< its script has ended or named a host; the log does not tell which
  kLaunched,  ///< the master was told the host: the log says nothing more
  kEnded,     ///< it ended before it was launched
};

/// What the log of a daemon tells of one connection.
struct Connection {
  std::size_t index = 0;  ///< its place among the connections of the log, from 0 on
  std::time_t began = 0;
  Step step = Step::kAccepted;
  std::string reason;  ///< of its end, see End; empty: it was launched, or the log does not tell
  std::string text;    ///< what follows the known words in the line that tells the end
  LogPlace first;      ///< its first line
  LogPlace last;       ///< the last that is its own

  // Texts as the log has them.
  std::optional<std::string> cluster;
  std::optional<std::string> path;
  std::optional<std::string> root;
  std::optional<std::string> processes;
  std::optional<std::string> version;
  std::optional<std::string> windows_user;
  std::optional<std::string> account;
  std::optional<std::string> script_processes;
  std::optional<std::string> script_path;
  std::optional<std::string> script_root;
  std::optional<std::string> port;
  std::optional<std::string> host;

  std::optional<std::string> scheduler;
  std::optional<std::string> job;
  std::optional<std::string> last_said;  ///< the last line of its script, cut to a readable length

  // Empty unless they are kept: see EndedRun.
  std::vector<std::string> lines;
  std::vector<std::string> environment;

  bool mixed = false;     ///< lines of others stand between those of its start
  bool guessed = false;   ///< several might have sent its request: `began` is unsure
  bool doubtful = false;  ///< the log contradicts itself here, see ConnectionLog
  bool unproven = false;  ///< began while scripts could write into the log; nothing confirms it

  bool unheard = false;    ///< its script may have said more: nobody knows whose line that was
  bool undecided = false;  ///< several scripts have ended, or named hosts: which one is not known

  // Set from outside, by other sources than the log, for ConnectionLog::Settle().
  bool alive = false;     ///< it went on when the processes were looked at
  bool runs_on = false;   ///< it went on after the log was read, too
  bool has_host = false;  ///< its script has named a host: it was launched
};

/// The time that `text` is, in the form in which daemons log it; none when it is no such time.
std::optional<std::time_t> TimeIn(std::string_view text);

/// Reads the log that one start of a daemon has begun. The lines of a log carry no sign of the
/// connection that they belong to, those of connections at the same time are mixed, and masters can
/// put line ends, and whole lines that look like the daemon's, into their texts. These signs give
/// mixed and made-up lines away; without any, a line is taken as it is:
///
///   - A line looks like the daemon's, and no connection has come so far that it could be its next.
///   - Lines of others stand between those of a request or of a script's arguments, which are
///     written together.
///   - Comms ports do not go on by one from connection to connection, as the daemon hands them out:
///     a connection that somebody has made up is one too many.
class ConnectionLog {
 public:
  /// With `keeps_lines` the connections get their `lines` and `environment`.
  explicit ConnectionLog(bool keeps_lines = false) : keeps_lines_(keeps_lines) {}

  /// The lines that follow are those of `file`, from its first one on.
  void BeginFile(const std::string& file);
  void AddLine(std::string_view line);

  /// All that have begun so far. Pointers to them stay valid; further lines change what they tell.
  std::deque<Connection>& connections() { return connections_; }

  /// The options of the daemon; none when the log does not begin with its start.
  const std::optional<Options>& options() const { return options_; }

  /// To be called last, when `runs_on` and `has_host` are known. Where several connections waited
  /// for their scripts, gives each line that ends a wait to the only one that it can belong to.
  void Settle();

 private:
  struct Rule;
  // The end of a wait for a script, when more than one waited.
  struct Answer {
    std::optional<std::string> host;  // none: the script has named none
    LogPlace place;
    std::vector<Connection*> candidates;
  };

  static const std::vector<Rule>& Rules();
  bool AddDaemonLine(std::string_view line);
  bool AddConnectionLine(std::string_view line);
  void Apply(const Rule& rule, std::string_view line, Connection& connection);
  Connection& Choose(const Rule& rule, const std::vector<Connection*>& candidates) const;
  void Move(Connection& connection, Step step);
  void Keep(Connection& connection, std::string_view line) const;
  void MarkOthersInStart(Connection& speaker);
  void AddScriptLine(std::string_view line);
  Connection* ScriptOf(std::string_view line);
  void AddAnswer(const std::optional<std::string>& host);
  void EndWait(Connection& connection, const Answer& answer);
  void CheckPort(Connection* launched);
  Connection* RightOne(Connection* launched, int port);
  void CloseAnswered();
  bool GiveHosts();
  void Doubt(std::size_t first);
  void DoubtAll(std::string_view line);
  static bool LooksLikeOurs(std::string_view line);
  std::optional<int> ExpectedPort(const Connection& connection) const;

  bool keeps_lines_;
  std::deque<Connection> connections_;
  std::map<Step, std::vector<Connection*>> open_;
  Connection* speaker_ = nullptr;      // of the last line
  Connection* last_script_ = nullptr;  // whose script has printed last, and the number of that line
  std::size_t last_script_line_ = 0;
  std::vector<Answer> answers_;
  LogPlace here_;
  std::size_t lines_ = 0;  // of the whole log
  bool starts_ = false;    // the log begins with a start of the daemon
  std::optional<Options> options_;

  // The latest connection of which the log tells the port, and that port.
  std::optional<std::size_t> confirmed_;
  int confirmed_port_ = 0;
};

/// How a connection ended that was not launched.
End EndOfStart(const Connection& connection);

/// How the run of `connection` ended, which has written the comms log.
End EndOfRun(const CommsLog& log, const Connection& connection);

}  // namespace inspect
