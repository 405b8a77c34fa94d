#include "tools/jobmillctl/serve/page.h"

#include <algorithm>
#include <functional>
#include <vector>

#include <fmt/format.h>

#include "inspect/runs.h"
#include "tools/jobmillctl/measures.h"
#include "tools/jobmillctl/run_view.h"
#include "tools/jobmillctl/serve/assets.h"
#include "tools/jobmillctl/serve/html.h"
#include "tools/jobmillctl/serve/plot.h"

namespace jobmillctl::serve {
namespace {

using inspect::RunState;

constexpr std::size_t kShort = 60;       // characters of a name in a table
constexpr std::size_t kMostEnded = 200;  // rows

const Json& StatusOf(const View& view) {
  return At(view.snapshot, {"runs", "document", "status"});
}

// What stands for a field: its number or text; "–" where it is null.
std::string Field(const Json& run, const char* name) {
  const Json& value = At(run, {name});
  if (value.is_null()) return "–";
  if (value.is_string()) return Html(value.get_ref<const std::string&>(), kShort);
  if (value.is_number_float()) return fmt::format("{:.6g}", value.get<double>());
  return Html(value.dump());
}

std::string Duration(std::optional<double> seconds) {
  return seconds ? DurationText(*seconds) : "–";
}

// "2026-11-22 10:40:19", with the rest in the title.
std::string Time(const Json& text) {
  if (!text.is_string()) return "–";
  std::string written = text.get<std::string>();
  if (written.size() < 19 || !TimeIn(text)) return Html(written, kShort);
  std::string shown = written.substr(0, 10) + " " + written.substr(11, 8);
  return fmt::format(R"(<time datetime="{0}" title="{0}">{1}</time>)", Html(written), Html(shown));
}

std::string Badge(const std::string& state) {
  return fmt::format(
      R"(<span class="state {}"><span class="sign" aria-hidden="true">{}</span>{}</span>)",
      ColourOf(state), SignOf(state), Html(state));
}

bool Is(const Json& run, RunState state) {
  return TextOf(run, "state") == Name(state);
}

bool HoldsLicence(const Json& run) {
  return !At(run, {"simulator"}).is_null() || Is(run, RunState::kMaster) ||
         Is(run, RunState::kSimulator);
}

std::string Lower(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

// Whether the filter lets the run through, with `state` in place of the filter's own.
bool Fits(const Json& run, const Filter& filter, const std::string& state) {
  if (!state.empty() &&
      state != (state == kLicence && HoldsLicence(run) ? kLicence : TextOf(run, "state"))) {
    return false;
  }
  if (filter.text.empty()) return true;
  std::string names = At(run, {"id"}).dump();
  for (const char* field :
       {"account", "windows_user", "path", "root", "host", "scheduler", "job"}) {
    names += "\n" + TextOf(run, field);
  }
  return Lower(names).find(Lower(filter.text)) != std::string::npos;
}

// Whether a run computes, as far as that can be seen. Nothing where it is somebody else's turn.
std::string Activity(const Json& run, const Timeline* timeline, double now) {
  if (!Is(run, RunState::kSimulator)) return {};
  if (At(run, {"simulator"}).is_null()) return "its simulator is not seen from this machine";
  if (timeline == nullptr || !timeline->processors()) {
    return "not known before the next look";
  }
  if (timeline->idle_since()) {
    constexpr double kSuspicious = 60;
    // While it was the engineer's turn there was nothing to compute.
    const double idle =
        std::min(now - *timeline->idle_since(), NumberOf(run, "state_seconds").value_or(0));
    const std::string text = "no processor time for " + DurationText(idle);
    return idle < kSuspicious ? text : R"(<span class="stuck">stuck? )" + text + "</span>";
  }
  return fmt::format("computing, {:.2f} processors", *timeline->processors());
}

std::string QueuedText(const Json& run, const Timeline* timeline) {
  const auto queued = timeline != nullptr ? timeline->Queued() : std::nullopt;
  if (!queued || Is(run, RunState::kHandshake)) return "–";
  const std::string time = DurationText(queued->seconds);
  if (queued->at_most) return "under " + time;
  return Is(run, RunState::kScript) ? time + " so far" : time;
}

std::string Note(const Json& run) {
  if (Is(run, RunState::kEnded)) return TextOf(run, "cause");
  const std::string reason = TextOf(At(run, {"unknown"}), "state");
  return reason.empty() ? TextOf(run, "waits_for") : reason;
}

std::string SmallUnlessEmpty(const std::string& text) {
  return text.empty() ? "" : "<small>" + text + "</small>";
}

std::string UserOf(const Json& run) {
  return fmt::format("{}<small>{}</small>", Field(run, "windows_user"), Field(run, "account"));
}

std::string ModelOf(const Json& run) {
  return fmt::format("<b>{}</b><small>{}</small>", Field(run, "root"), Field(run, "path"));
}

std::string SimulatorOf(const Json& run) {
  std::string text = Field(run, "host");
  if (!At(run, {"simulator"}).is_null()) {
    text += " <small>process " + Field(run, "simulator") + "</small>";
  }
  if (!At(run, {"job"}).is_null()) {
    text += fmt::format("<small>{} job {}</small>", Field(run, "scheduler"), Field(run, "job"));
  }
  return text;
}

std::string Row(const Json& run, const View& view) {
  const Timeline* timeline = view.timelines.Of(run);
  const std::string id = Field(run, "id");
  const auto heard = NumberOf(run, "last_heard_seconds");
  return fmt::format(
      R"(<tr><td class="number"><a href="/runs/{0}">{0}</a></td>)"
      R"(<td>{1}{2}{3}</td><td class="whole">{4}</td><td>{5}</td><td>{6}</td><td>{7}</td>)"
      R"(<td class="whole">{8}</td><td>{9}{10}</td><td class="number">{11}</td><td class="number">{12}</td></tr>)"
      "\n",
      id, Badge(TextOf(run, "state")), SmallUnlessEmpty(Activity(run, timeline, view.now)),
      SmallUnlessEmpty(Html(Note(run), 2 * kShort)), Duration(NumberOf(run, "state_seconds")),
      UserOf(run), ModelOf(run), SimulatorOf(run), QueuedText(run, timeline),
      Field(run, "last_request"),
      heard ? SmallUnlessEmpty("heard " + DurationText(*heard) + " ago") : "", Field(run, "day"),
      Field(run, "requests"));
}

std::string Link(const Filter& filter, const std::string& state, const std::string& ended) {
  std::string link = "/?state=" + QueryValue(state) + "&amp;ended=" + QueryValue(ended);
  if (!filter.text.empty()) link += "&amp;text=" + QueryValue(filter.text);
  return link;
}

// A link to the runs in `state`, or with "" to all, and their number.
std::string Chip(const Json& runs, const Filter& filter, const std::string& state,
                 const std::string& shown) {
  const auto count =
      std::ranges::count_if(runs, [&](const Json& run) { return Fits(run, filter, state); });
  return fmt::format(R"(<li><a href="{}"{}{}>{} {}</a></li>)", Link(filter, state, filter.ended),
                     filter.state == state ? R"( aria-current="true")" : "",
                     count == 0 ? R"( class="none")" : "", shown, count);
}

std::string Chips(const Json& runs, const Filter& filter) {
  std::string chips = R"(<ul class="chips">)" + Chip(runs, filter, "", "all");
  for (const RunState state : kStates) chips += Chip(runs, filter, Name(state), Badge(Name(state)));
  return chips + Chip(runs, filter, kLicence, "with a simulator, which holds a licence") + "</ul>";
}

std::string RunsSection(const View& view, const Filter& filter) {
  const Json& runs = At(StatusOf(view), {"runs"});
  if (!runs.is_array()) return {};
  std::string html = R"(<h2 id="runs">Runs</h2>)" + Chips(runs, filter);
  std::string rows;
  for (const Json& run : runs) {
    if (Fits(run, filter, filter.state)) rows += Row(run, view);
  }
  if (rows.empty()) {
    return html + (runs.empty() ? "<p>No run.</p>"
                                : R"(<p>No run fits the filter. <a href="/">Show all</a></p>)");
  }
  return html +
         "<div class=\"scroll\"><table id=\"table\"><thead><tr><th class=\"number\">Run<th>State"
         "<th>For<th>User, account<th>Model<th>Simulator<th>Queued<th>Last request"
         "<th class=\"number\">Day<th class=\"number\">Requests</tr></thead><tbody>\n" +
         rows + "</tbody></table></div>";
}

std::string DaemonLine(const Json& daemon, const Json& measures) {
  std::string line =
      fmt::format("Daemon on port {}: process {} of {} since {}", Field(daemon, "port"),
                  Field(daemon, "pid"), Field(daemon, "account"), Time(At(daemon, {"since"})));
  if (At(daemon, {"older_program"}) == true) {
    line += "; it serves with an older program than the one that is installed";
  }
  for (const Json& use : At(measures, {"daemons"})) {
    if (At(use, {"port"}) != At(daemon, {"port"})) continue;
    line += fmt::format("; {} of {} comms ports free, {} of {} descriptors used",
                        Field(use, "comms_ports_free"), Field(use, "comms_ports"),
                        Field(use, "descriptors"), Field(use, "descriptors_limit"));
  }
  return "<p>" + line + ".</p>";
}

// What is to be known before anything else on a page.
std::string Head(const View& view) {
  if (view.snapshot.is_null()) {
    return fmt::format(
        R"(<p class="alarm">Nothing has been collected yet: {}. Does the collector run?</p>)",
        Html(view.trouble));
  }
  const std::string time = Time(At(StatusOf(view), {"time"}));
  std::string html;
  if (!IsCollected(view)) {
    const Json& ok = At(view.snapshot, {"runs", "ok"});
    html +=
        fmt::format(R"(<p class="alarm">{}. What follows was seen {}, {} ago.</p>)",
                    ok == false ? "The last look at the runs failed"
                                : "The collector has not been heard since" +
                                      (view.trouble.empty() ? "" : " (" + Html(view.trouble) + ")"),
                    time, DurationText(AgeOf(view, "runs")));
  } else {
    html += fmt::format(R"(<p class="soft">Seen {}.</p>)", time);
  }
  const Json& status = StatusOf(view);
  for (const Json& daemon : At(status, {"daemons"})) {
    html += DaemonLine(daemon, At(view.snapshot, {"runs", "document", "measures"}));
  }
  if (At(status, {"daemons"}).is_array() && At(status, {"daemons"}).empty()) {
    html += R"(<p class="alarm" id="no-daemon">No daemon is running on this machine: masters are )"
            "refused. Runs that are here go on.</p>";
  }
  for (const Json& missing : At(status, {"missing"})) {
    html += fmt::format(R"(<p class="alarm">Not known: {}</p>)", Html(missing.get<std::string>()));
  }
  return html;
}

std::string FindingsSection(const View& view) {
  const Json& findings = At(view.snapshot, {"check", "document", "findings"});
  std::string html = R"(<h2 id="configuration">Configuration</h2>)";
  if (!findings.is_array()) {
    return html + (At(view.snapshot, {"check", "ok"}) == false && AgeOf(view, "check") > 300
                       ? "<p>It could not be looked at.</p>"
                       : "<p>It has not been looked at yet.</p>");
  }
  html += fmt::format(R"(<p class="soft">What jobmillctl check found {} ago.</p>)",
                      DurationText(AgeOf(view, "check")));
  if (findings.empty()) return html + "<p>Nothing is wrong.</p>";
  html +=
      R"(<div class="scroll"><table><thead><tr><th>How bad<th>What<th>What to do<th>Where</tr></thead><tbody>)";
  for (const Json& finding : findings) {
    const std::string severity = TextOf(finding, "severity");
    const bool error = severity == "error";
    html += fmt::format(
        R"(<tr><td><span class="state {}"><span class="sign" aria-hidden="true">{}</span>{}</span></td>)"
        "<td>{}; {}</td><td>{}</td><td>{}{}<small>{}</small></td></tr>\n",
        error                   ? "lost"
        : severity == "warning" ? "script"
                                : "end",
        error                   ? "▲"
        : severity == "warning" ? "!"
                                : "?",
        Html(severity), Html(TextOf(finding, "what"), 1000),
        Html(TextOf(finding, "consequence"), 1000), Html(TextOf(finding, "remedy"), 1000),
        Html(TextOf(finding, "file"), 200),
        NumberOf(finding, "line").value_or(0) > 0 ? ":" + Field(finding, "line") : "",
        Html(TextOf(finding, "id")));
  }
  return html + "</tbody></table></div>";
}

std::string EndedRow(const Json& run, const View& view) {
  const bool failed = At(run, {"failed"}) == true;
  std::string how = fmt::format(
      R"(<span class="state {}"><span class="sign" aria-hidden="true">{}</span>{}</span>)",
      failed ? "lost" : "simulator", failed ? "▲" : "✓", Field(run, "ending"));
  std::string sentence = Html(TextOf(run, "sentence"), 1000);
  for (const Json& doubt : At(run, {"doubts"})) {
    sentence += fmt::format("<small>not certain: {}</small>", Html(doubt.get<std::string>(), 300));
  }
  std::string places;
  for (const Json& place : At(run, {"places"})) {
    const double line = NumberOf(place, "line").value_or(0);
    places += fmt::format("<small>{}{}</small>", Html(TextOf(place, "file"), 200),
                          line > 0 ? fmt::format(":{}", line) : "");
  }
  const Timeline* timeline = view.timelines.FindEnded(run);
  const std::string model = ModelOf(run);
  return fmt::format(
      R"(<tr><td class="time">{}</td><td class="time">{}</td><td>{}</td><td>{}</td><td>{}</td>)"
      R"(<td class="whole">{}</td><td class="whole">{}</td><td class="number">{}</td><td>{}</td></tr>)"
      "\n",
      Time(At(run, {"ended"})), how, sentence, UserOf(run),
      timeline == nullptr ? model
                          : fmt::format(R"({}<a href="/runs/{}">how it ran</a>)", model,
                                        Field(timeline->run(), "id")),
      Duration(NumberOf(run, "lasted_seconds")), Duration(NumberOf(run, "queued_seconds")),
      Field(run, "day"), places);
}

std::string EndedSection(const View& view, const Filter& filter) {
  const Json& runs = At(view.snapshot, {"history", "document", "runs"});
  std::string html = R"(<h2 id="ended">Ended</h2>)";
  if (!runs.is_array()) return html + "<p>The logs have not been looked at yet.</p>";
  std::vector<const Json*> ended;
  for (const Json& run : runs) {
    if (filter.ended == kFailed && At(run, {"failed"}) != true) continue;
    if (Fits(run, filter, "")) ended.push_back(&run);
  }
  // The texts of times stand in the order of the times, but for the hour when clocks are set back.
  std::ranges::stable_sort(ended, std::greater(), [](const Json* run) {
    return std::max(TextOf(*run, "connected"), TextOf(*run, "ended"));
  });
  if (ended.size() > kMostEnded) ended.resize(kMostEnded);
  std::string rows;
  for (const Json* run : ended) rows += EndedRow(*run, view);
  html += fmt::format(
      R"(<p class="soft">Those that began in the last week, as the logs told {} ago; the last first.</p>)"
      R"(<ul class="chips"><li><a href="{}#ended"{}>all</a></li><li><a href="{}#ended"{}>failed</a></li></ul>)",
      DurationText(AgeOf(view, "history")), Link(filter, filter.state, ""),
      filter.ended.empty() ? R"( aria-current="true")" : "", Link(filter, filter.state, kFailed),
      filter.ended == kFailed ? R"( aria-current="true")" : "");
  for (const Json& missing : At(view.snapshot, {"history", "document", "missing"})) {
    html += fmt::format(R"(<p class="alarm">Not known: {}</p>)", Html(missing.get<std::string>()));
  }
  if (rows.empty()) return html + "<p>None.</p>";
  return html +
         "<div class=\"scroll\"><table id=\"past\"><thead><tr><th>Ended<th>How<th>Why"
         "<th>User, account<th>Model<th>Lasted<th>Queued<th class=\"number\">Day<th>Where to look"
         "</tr></thead><tbody>\n" +
         rows + "</tbody></table></div>";
}

std::string Whole(const View& view, const std::string& title, const Filter& filter,
                  const std::string& main) {
  const Json& host = At(view.snapshot, {"host"});
  const std::string name = host.is_string() ? host.get<std::string>() : "this machine";
  std::string page = kPageHtml;
  // The search goes on after each text: a text may hold what looks like one of these places.
  const std::pair<const char*, std::string> places[] = {
      {"@title@", Html(title + " – Jobmill on " + name)},
      {"@host@", Html(name)},
      {"@state@", Html(filter.state)},
      {"@text@", Html(filter.text)},
      {"@main@", Head(view) + main},
  };
  std::size_t from = 0;
  for (const auto& [place, text] : places) {
    const std::size_t at = page.find(place, from);
    page.replace(at, std::string_view(place).size(), text);
    from = at + text.size();
  }
  return page;
}

std::string Fact(const std::string& name, const std::string& html) {
  return "<dt>" + name + "</dt><dd>" + html + "</dd>";
}

// The questions that are asked most.
std::string Answers(const View& view, const Timeline& timeline) {
  const Json& run = timeline.run();
  std::string html = R"(<dl class="answers">)";
  if (timeline.ended()) {
    html +=
        Fact("Does it run?",
             fmt::format("No: it has been gone since {} ({} ago). Its last state "
                         "was: {}. Why it ended is under <a href=\"/#ended\">Ended</a>.",
                         Time(Json(TimeText(*timeline.ended()))),
                         DurationText(view.now - *timeline.ended()), Badge(TextOf(run, "state"))));
  } else {
    std::string doing = Activity(run, &timeline, view.now);
    if (Is(run, RunState::kMaster)) doing = "neither: it is the engineer's turn";
    if (Is(run, RunState::kScript)) doing = "neither: it waits for its host, or in a queue";
    html += Fact("What does it wait for?",
                 fmt::format("{}{} for {}", Badge(TextOf(run, "state")),
                             Note(run).empty() ? "" : " (" + Html(Note(run), 1000) + ")",
                             Duration(NumberOf(run, "state_seconds"))));
    html += Fact("Is it computing or stuck?", doing.empty() ? "neither" : doing);
    html += Fact("Does it hold a licence?", HoldsLicence(run) ? "yes: it has a simulator" : "no");
  }
  html += Fact("How long did it queue?",
               timeline.Queued()
                   ? QueuedText(run, &timeline)
                   : "not known: its script had named the host when it was first seen here");
  return html + "</dl>";
}

std::string Figure(const std::string& title, const std::string& picture, const std::string& note) {
  if (picture.empty()) return {};
  return "<figure><figcaption>" + title + R"( <span class="soft">)" + note +
         "</span></figcaption>" + picture + "</figure>";
}

std::string Plots(const Timeline& timeline) {
  const double from = timeline.Beginning();
  const double to = timeline.seen();
  std::vector<Dot> days;
  std::vector<Dot> requests;
  for (const Timeline::Point& point : timeline.points()) {
    if (point.day) days.push_back({point.time, *point.day});
    if (point.requests) requests.push_back({point.time, static_cast<double>(*point.requests)});
  }
  const std::string last = fmt::format("the last {}", Timeline::kMostStates);
  return Figure("States", Bars(timeline.states(), from, to),
                timeline.states_left_out() ? last : "") +
         Figure("Requests per minute", Curve(PerMinute(requests, from, to), from, to), "") +
         Figure("Simulated days", Curve(days, from, to), "as the master was told them");
}

std::string StatesTable(const Timeline& timeline) {
  constexpr std::size_t kMost = 30;
  std::string html =
      "<h3>States, the last first</h3><div class=\"scroll\"><table><thead><tr><th>State"
      "<th>Since<th>For</tr></thead><tbody>";
  std::size_t count = 0;
  for (auto span = timeline.states().rbegin(); span != timeline.states().rend() && count < kMost;
       ++span, ++count) {
    html += fmt::format("<tr><td>{}</td><td>{}</td><td>{}</td></tr>", Badge(span->state),
                        Time(Json(TimeText(span->since))), DurationText(span->until - span->since));
  }
  return html + "</tbody></table></div>";
}

std::string AllFields(const Json& run) {
  std::string html = "<h3>All that is known</h3><dl class=\"all\">";
  for (const auto& [name, value] : run.items()) {
    if (name == "unknown") continue;
    const std::string reason = TextOf(At(run, {"unknown"}), name.c_str());
    std::string text = value.is_string() ? Html(value.get_ref<const std::string&>())
                       : value.is_null() ? "–"
                                         : Html(value.dump());
    if (!reason.empty() && value.is_null()) text = "not known: " + Html(reason);
    html += Fact(Html(name), text);
  }
  return html + "</dl>";
}

}  // namespace

double AgeOf(const View& view, const char* part) {
  return std::max(0.0, view.now - NumberOf(At(view.snapshot, {part}), "time").value_or(0));
}

bool IsCollected(const View& view) {
  constexpr double kLate = 15;
  if (At(view.snapshot, {"runs", "ok"}) != true) return false;
  const double every = NumberOf(view.snapshot, "every_seconds").value_or(0);
  return AgeOf(view, "runs") < std::max(kLate, 3 * every);
}

std::string RunsPage(const View& view, const Filter& filter) {
  return Whole(view, "Runs", filter,
               RunsSection(view, filter) + EndedSection(view, filter) + FindingsSection(view));
}

std::string RunPage(const View& view, const Timeline& timeline) {
  const Json& run = timeline.run();
  const std::string id = Field(run, "id");
  return Whole(
      view, "Run " + At(run, {"id"}).dump(), {},
      fmt::format("<h2>Run {}: {} of {}</h2>", id, Field(run, "root"), Field(run, "windows_user")) +
          Answers(view, timeline) + Plots(timeline) + StatesTable(timeline) + AllFields(run));
}

std::string SentencePage(const View& view, const std::string& sentence) {
  return Whole(view, "Jobmill", {}, "<p>" + Html(sentence) + "</p>");
}

}  // namespace jobmillctl::serve
