#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/jobmillctl/serve/page.h"
#include "tools/jobmillctl/serve/timeline.h"

namespace jobmillctl::serve {

struct Request {
  std::string method;
  std::string target;  ///< "/?state=lost"
  std::string host;    ///< as the header names it
};

struct Reply {
  unsigned status = 200;
  std::string type;
  std::string body;
};

/// What is shown: the last snapshot, and what the snapshots before it have told of each run. Every
/// question is answered from memory.
class Board {
 public:
  /// `hosts` are the names besides those of this machine under which a browser may ask.
  Board(std::string file, std::vector<std::string> hosts);

  /// Reads the snapshot if it was replaced. Never throws: what is wrong with it is shown.
  void Refresh();

  Reply Answer(const Request& request) const;

 private:
  void Read();
  bool IsOurs(const std::string& host) const;
  Reply AnswerApi(const std::string& path, const View& view) const;
  View ViewNow() const;

  std::string file_;
  std::vector<std::string> hosts_;
  std::pair<ino_t, double> known_;  // inode and time of the file that was read
  Json snapshot_;
  double added_ = 0;  // the time of the last look at the runs that is in the timelines
  Timelines timelines_;
  std::string trouble_;
};

/// The path and the variables of a target, decoded.
struct Target {
  std::string path;
  std::map<std::string, std::string> variables;
};
Target ReadTarget(const std::string& target);

/// What every reply has besides its own headers: nothing but this server's own files is loaded, and
/// no other page may have this one in it.
inline constexpr std::pair<const char*, const char*> kHeaders[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
     "form-action 'self'; base-uri 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

}  // namespace jobmillctl::serve
