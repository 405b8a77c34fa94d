// The status page in a real browser, beside what the test has done with the runs.

#include <signal.h>

#include <filesystem>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/jobmillctl/jobmillctl.h"
#include "tests/jobmillctl/runs_site.h"
#include "tests/jobmillctl/status_server.h"
#include "tests/support/browser.h"
#include "tests/support/bytes.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kScript = "waiting for the script";
constexpr const char* kListens = "waiting for the simulator to listen";
constexpr const char* kMaster = "waiting for the master";
constexpr const char* kSimulator = "waiting for the simulator";

// Fetches the page again, rather than waiting until it does that by itself.
constexpr const char* kUpdate = "globalThis.update && update()";

class StatusPageTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!Browser::IsInstalled()) GTEST_SKIP() << "needs chromium-headless-shell";
    site_ = std::make_unique<RunsSite>();
    file_ = directory_.File("snapshot.json");
    collector_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{ProgramDirectory() + "/jobmillctl", "collect", "--every", "1",
                                 "--snapshot", file_},
        ChildProcess::Options());
    server_ = std::make_unique<StatusServer>(file_);
    browser_ = std::make_unique<Browser>();
  }

  RunsSite& site() { return *site_; }
  Browser& browser() { return *browser_; }

  // Only the runs of this test's models: others may have runs on this machine.
  std::string Filter(const std::string& more = "") const {
    return server_->Address() + "/?text=" + site_->data().path().filename().string() + more;
  }

  // The state of each model as a page shows it, by the rows of its table.
  static std::multimap<std::string, std::string> Shown(Browser& browser) {
    const json rows = browser.Evaluate(
        "[...document.querySelectorAll('#table tbody tr')].map(row => ["
        "row.cells[4].querySelector('b').textContent,"
        "row.querySelector('.state').lastChild.textContent])");
    std::multimap<std::string, std::string> states;
    for (const json& row : rows) states.emplace(row.at(0), row.at(1));
    return states;
  }

  // Waits until the page, fetched again and again, shows these states and no others.
  bool Shows(const std::multimap<std::string, std::string>& states) {
    const bool shown = Eventually(
        [&] {
          browser().Evaluate(kUpdate);
          return Shown(browser()) == states;
        },
        std::chrono::seconds(30));
    EXPECT_EQ(Shown(browser()), states);
    return shown;
  }

  TemporaryDirectory directory_;
  std::string file_;
  std::unique_ptr<RunsSite> site_;
  std::unique_ptr<ChildProcess> collector_;
  std::unique_ptr<StatusServer> server_;
  std::unique_ptr<Browser> browser_;
};

TEST_F(StatusPageTest, FiftyRunsAreShownAndFiltered) {
  std::multimap<std::string, std::string> states;
  for (int i = 0; i < 10; ++i) {
    const std::string number = std::to_string(i);
    site().Greet();
    site().Request("QUEUED" + number);
    site().Connect("ABSENT" + number);
    site().Connect("IDLE" + number);
    site().Connect("STEP" + number).Send(Bytes("07 00 00 00"));
    states.emplace("QUEUED" + number, kScript);
    states.emplace("ABSENT" + number, kListens);
    states.emplace("IDLE" + number, kMaster);
    states.emplace("STEP" + number, kSimulator);
  }
  browser().Open(Filter());
  Shows(states);

  // Each state is a filter, and so is the simulator, whose licence is asked for.
  for (const char* state : {kScript, kListens, kMaster, kSimulator, "with a simulator"}) {
    browser().Evaluate(
        "[...document.querySelectorAll('.chips a')].find(link => "
        "link.search.includes('state=" +
        std::string(state) + "'.replaceAll(' ', '%20') + '&')).click()");
    std::multimap<std::string, std::string> expected = states;
    std::erase_if(expected, [&](const auto& run) {
      const bool holds = run.second == kMaster || run.second == kSimulator;
      return state == std::string("with a simulator") ? !holds : run.second != state;
    });
    EXPECT_TRUE(
        browser().Becomes("document.querySelector('[aria-current]')?.textContent.includes('" +
                          std::string(state) + "')"));
    Shows(expected);
  }

  // Somebody types, and what is typed stays while the page updates itself.
  browser().Open(server_->Address() + "/");
  browser().Evaluate("document.querySelector('[name=text]').value = 'step7'");
  browser().Evaluate("const was = document.querySelector('main')");
  ASSERT_TRUE(browser().Becomes("document.querySelector('main') !== was"));
  EXPECT_EQ(browser().Evaluate("document.querySelector('[name=text]').value"), "step7");
  browser().Evaluate("document.querySelector('form').submit()");
  ASSERT_TRUE(browser().Becomes("location.search.includes('step7')"));
  EXPECT_TRUE(Eventually([&] { return Shown(browser()).count("STEP7") == 1; }));
  EXPECT_EQ(Shown(browser()).count("STEP6"), 0U);
}

TEST_F(StatusPageTest, PageOutlivesDaemonAndServer) {
  site().Request("QUEUED1");
  site().Connect("IDLE1");
  const std::multimap<std::string, std::string> states = {{"QUEUED1", kScript}, {"IDLE1", kMaster}};
  browser().Open(Filter());
  Shows(states);

  // The daemon is killed. Its runs go on, and are shown.
  site().daemon().process().Signal(SIGKILL);
  site().daemon().process().Wait(std::chrono::seconds(10));
  browser().Open(Filter());
  const std::string line = "Daemon on port " + std::to_string(site().daemon().port());
  EXPECT_TRUE(Eventually([&] {
    browser().Evaluate(kUpdate);
    return browser().Evaluate("!document.body.textContent.includes('" + line + "')") == true;
  }));
  Shows(states);

  // So does the page when its server is gone, until that is back.
  const int port = server_->port();
  server_.reset();
  EXPECT_TRUE(browser().Becomes("!document.getElementById('silent').hidden"));
  EXPECT_THAT(
      browser().Evaluate("document.getElementById('silent').textContent").get<std::string>(),
      HasSubstr("The server has not answered since"));
  EXPECT_EQ(Shown(browser()), states);
  server_ = std::make_unique<StatusServer>(file_, port);
  EXPECT_TRUE(browser().Becomes("document.getElementById('silent').hidden"));
  Shows(states);
}

// What an engineer asks is answered on the page that the table leads to.
TEST_F(StatusPageTest, RunIsFollowedFromItsQueueToItsEnd) {
  const auto answer = [&](const std::string& question) {
    browser().Evaluate(kUpdate);
    return browser().Evaluate(
        "(() => { const found = [...document.querySelectorAll('.answers dt')]"
        ".find(name => name.textContent === '" +
        question +
        "');"
        "return found ? found.nextSibling.textContent : ''; })()");
  };
  const auto answers = [&](const std::string& question, const std::string& text) {
    EXPECT_TRUE(Eventually([&] {
      return answer(question).get<std::string>().find(text) != std::string::npos;
    })) << question
        << ": " << answer(question);
  };
  TestMaster& master = site().Request("HELD");
  browser().Open(Filter());
  Shows({{"HELD", kScript}});
  browser().Evaluate("document.querySelector('#table a').click()");
  ASSERT_TRUE(browser().Becomes("document.querySelector('.answers') !== null"));
  answers("What does it wait for?", kScript);
  answers("Does it hold a licence?", "no");
  answers("How long did it queue?", "so far");
  site().data().Write("HELD.go", "");
  master.Receive();
  master.Send(Bytes("01 00 00 00"));
  master.Receive();
  answers("What does it wait for?", kMaster);
  answers("Is it computing or stuck?", "the engineer");
  answers("Does it hold a licence?", "yes");
  master.Ask("04 00 00 00");
  master.Send(Bytes("07 00 00 00"));
  answers("What does it wait for?", kSimulator);
  answers("Is it computing or stuck?", "no processor time for ");
  EXPECT_EQ(answer("How long did it queue?").get<std::string>().find("so far"), std::string::npos);
  EXPECT_TRUE(
      browser().Becomes("update().then(() => document.querySelectorAll('.plot').length === 3)"));
  EXPECT_GE(browser().Evaluate("document.querySelectorAll('.plot .bar').length"), 3);
  EXPECT_EQ(Jobmillctl({"end", "--yes", site().Run("HELD").at("id").dump()}).status, 0);
  answers("Does it run?", "it has been gone since");
  EXPECT_THAT(browser().complaints(), IsEmpty());

  browser().Open(Filter());
  EXPECT_TRUE(Eventually(
      [&] {
        browser().Evaluate(kUpdate);
        return browser().Evaluate("document.querySelectorAll('#past tbody tr').length") == 1;
      },
      std::chrono::seconds(40)));
  EXPECT_EQ(browser().Evaluate("document.querySelector('#past b').textContent"), "HELD");
  EXPECT_THAT(
      browser().Evaluate("document.querySelector('#past tbody tr').textContent").get<std::string>(),
      HasSubstr("simulator"));
}

TEST_F(StatusPageTest, PageIsWholeWithoutScripts) {
  site().Request("QUEUED1");
  site().Connect("IDLE1");
  ASSERT_TRUE(site().WaitForState("QUEUED1", kScript));
  browser_ = std::make_unique<Browser>(false);
  EXPECT_TRUE(Eventually([&] {
    browser().Open(Filter());
    return Shown(browser()).size() == 2;
  }));
  // A run that has just been connected may be between two states when it is looked at.
  const std::multimap<std::string, std::string> idle{{"IDLE1", kMaster}};
  EXPECT_TRUE(Eventually([&] {
    browser().Open(Filter("&state=waiting+for+the+master"));
    return Shown(browser()) == idle;
  }));
  // It loads itself again.
  EXPECT_EQ(browser().Evaluate("document.querySelector('[http-equiv=refresh]').content"), "15");
}

TEST_F(StatusPageTest, HostileNamesStayText) {
  const std::string script = "<script>document.title='evil'</script><img src=x onerror=alert(1)>";
  const std::string user = "'\"><svg onload=alert(2)>\x1b[2J\u202e";
  const std::string root = "ABSENT" + script + "\xff\n";
  TestMaster master(site().daemon().port());
  master.RequestRun({"0", site().data().path().string() + "/", root, "1", "20172", user, "0"});
  TestMaster other(site().daemon().port());
  other.RequestRun({"0", site().data().path().string() + "/", "ABSENT" + std::string(32'000, '<'),
                    "1", "20172", "alice", "0"});
  browser().Open(Filter());
  ASSERT_TRUE(Eventually([&] {
    browser().Evaluate(kUpdate);
    return Shown(browser()).size() == 2;
  }));
  for (const char* page : {"/", "/runs/"}) {
    for (const json& run : site().Runs()) {
      browser().Open(server_->Address() + page +
                     (page == std::string("/") ? "" : run.at("id").dump()));
      EXPECT_THAT(browser().Evaluate("document.title").get<std::string>(),
                  HasSubstr("Jobmill on "));
      EXPECT_EQ(
          browser().Evaluate("document.querySelectorAll('main script, main img, main svg[onload]')"
                             ".length"),
          0);
      EXPECT_LE(browser().Evaluate("document.documentElement.scrollWidth"), 1360);
    }
  }
  browser().Open(Filter());
  EXPECT_EQ(
      browser().Evaluate("document.querySelector('#table b').textContent.startsWith('ABSENT<')"),
      true);
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

}  // namespace
