// The report in a real browser. With the variable JOBMILL_PICTURES, the name of a directory, the
// pictures are kept there.

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/browser.h"
#include "tests/support/bytes.h"
#include "tests/system/site.h"
#include "tests/tools/program.h"
#include "tools/vkmaster/report/report.h"

namespace vkmaster {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Row = std::vector<std::string>;

// A CSV file without quotes.
std::vector<Row> RowsOf(const std::string& file) {
  std::ifstream in(file);
  std::vector<Row> rows;
  for (std::string line; std::getline(in, line);) {
    Row& row = rows.emplace_back();
    std::istringstream cells(line);
    for (std::string cell; std::getline(cells, cell, ',');) row.push_back(cell);
  }
  return rows;
}

// The values of a well in the page, -1 for the field.
json Values(Browser& browser, int well, const std::string& id) {
  return browser.Evaluate(fmt::format("need([{0}]).then(() => curve({0}, '{1}'))", well, id));
}

class ReportPageTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!Browser::IsInstalled()) GTEST_SKIP() << "needs chromium-headless-shell";
    browser_ = std::make_unique<Browser>();
  }

  Browser& browser() { return *browser_; }

  void Open(const std::string& file) {
    browser().Open("file://" + file);
    ASSERT_TRUE(
        browser().Becomes("drawing === 0 && (charts.size === 0 || [...charts.values()].some("
                          "chart => chart.seen)) && [...charts.values()].every("
                          "chart => !chart.seen || chart.u !== null)"))
        << testing::PrintToString(browser().complaints());
  }

  // A page of these CSV files and of a run.json.
  std::string PageOf(const std::map<std::string, std::string>& files) {
    for (const auto& [name, text] : files) directory_.Write(name, text);
    if (!files.contains("steps.csv")) directory_.Write("steps.csv", "time_days,date,ended\n");
    std::string page = directory_.File("report.html");
    WriteReport(ReadResults(directory_.path().string()), page);
    return page;
  }

  void OpenResults(const std::map<std::string, std::string>& files) { Open(PageOf(files)); }

  void Press(const std::string& chart, const std::string& key) {
    browser().Evaluate(fmt::format(
        "find('plot-{}').dispatchEvent(new KeyboardEvent('keydown', {{key: '{}', bubbles: true}}))",
        chart, key));
  }

  std::string Text(const std::string& selector) {
    return browser().Evaluate("document.querySelector('" + selector + "').textContent");
  }

  TemporaryDirectory directory_;
  std::unique_ptr<Browser> browser_;
};

// Ten wells of the stand-in simulator over ten years.
class WholeRunReportTest : public ReportPageTest {
 protected:
  void Run() {
    std::filesystem::copy_file(EXAMPLES_DIR "/TENWELLS.afi", site_.data().File("TENWELLS.afi"));
    const std::string plan = directory_.Write("plan.toml", R"(
title = "North flank: P3 shut for five years"
[advance]
until = 3650
step = "monthly"
[record]
commands = ["data", "vars P* water-cut", "wells"]
[[event]]
at = 365
commands = ["constrain P1 liquid=2000 gas=10", "ipr P1"]
[[event]]
at = 730
commands = ["shut P3", "constrain P2 bhp=1500"]
[[event]]
at = 1500
commands = ["ipr P1 P2 lift"]
[[event]]
at = 2500
commands = ["open P3"]
)");
    const Outcome outcome =
        RunVkmaster({"--host", "127.0.0.1", "--port", std::to_string(site_.daemon().port()),
                     "--path", site_.data().path().string() + "/", "--root", "TENWELLS", "--user",
                     "demo", "run", "--report", directory_.File("report.html"), plan});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
  }

  Site site_;
};

TEST_F(WholeRunReportTest, NumbersInThePageAreThoseInTheFiles) {
  ASSERT_NO_FATAL_FAILURE(Run());
  ASSERT_NO_FATAL_FAILURE(Open(directory_.File("report.html")));
  const std::vector<Row> rows = RowsOf(directory_.File("results/data.csv"));
  const std::map<std::string, int> columns{{"oil_rate", 4},
                                           {"water_rate", 5},
                                           {"gas_rate", 6},
                                           {"water_injection_rate", 7},
                                           {"bottom_hole_pressure", 9},
                                           {"tubing_head_pressure", 10}};
  const int wells = browser().Evaluate("meta.wells.length");
  ASSERT_EQ(wells, 10);
  std::size_t compared = 0;
  for (int well = 0; well < wells; ++well) {
    const std::string name = browser().Evaluate(fmt::format("meta.wells[{}].name", well));
    for (const auto& [id, column] : columns) {
      const json values = Values(browser(), well, id);
      std::size_t at = 0;
      for (const Row& row : rows) {
        if (row[2] != name) continue;
        ASSERT_EQ(values.at(at++), std::stof(row[static_cast<std::size_t>(column)]))
            << name << " " << id << " day " << row[0];
        ++compared;
      }
      EXPECT_EQ(at, values.size());
    }
  }
  EXPECT_GT(compared, 6000U);

  // What the page makes of them: sums, ratios, what adds up.
  const json oil = Values(browser(), -1, "oil_rate");
  const json water = Values(browser(), -1, "water_rate");
  const json cut = Values(browser(), -1, "water_cut");
  const json ratio = Values(browser(), -1, "gas_oil_ratio");
  const json gas = Values(browser(), -1, "gas_rate");
  const json total = Values(browser(), -1, "oil_total");
  std::map<double, double> sums;
  for (std::size_t i = 1; i < rows.size(); ++i)
    sums[std::stod(rows[i][0])] += std::stod(rows[i][4]);
  ASSERT_EQ(oil.size(), sums.size());
  double added = 0;
  double last = 0;
  std::size_t at = 0;
  for (const auto& [day, sum] : sums) {
    EXPECT_NEAR(oil[at], sum, 1e-6 * sum);
    added += sum * (day - last);
    last = day;
    EXPECT_NEAR(total[at], added, 1e-6 * added);
    EXPECT_NEAR(cut[at], water[at].get<double>() / (water[at].get<double>() + sum), 1e-6);
    EXPECT_NEAR(ratio[at], gas[at].get<double>() * 1e6 / sum, 1e-3);
    ++at;
  }
  EXPECT_NEAR(browser().Evaluate("meta.wells.reduce((sum, well) => sum + well.totals[0], 0)"),
              added, 1e-6 * added);

  // What is seen: the legend has the last values, and others where one points.
  EXPECT_EQ(browser().Evaluate("find('plot-oil_rate').querySelectorAll('.u-value').length"), 7);
  const std::string last_oil = Text("#plot-oil_rate .u-series:nth-child(2) .u-value");
  EXPECT_EQ(last_oil, fmt::format("{:.6g}", oil.back().get<double>()));
  Press("oil_rate", "Home");
  EXPECT_EQ(Text("#plot-oil_rate .u-series:nth-child(1) .u-value"), "2020-01-01, day 0");
  EXPECT_EQ(Text("#plot-oil_rate .u-series:nth-child(2) .u-value"),
            fmt::format("{:.6g}", oil.front().get<double>()));
  EXPECT_EQ(Text("#plot-water_cut .u-series:nth-child(1) .u-value"), "2020-01-01, day 0")
      << "the charts point at the same time";

  // The table, to the last digit that was recorded.
  browser().Evaluate("find('numbers').open = true");
  ASSERT_TRUE(browser().Becomes("document.querySelectorAll('#numbers tbody tr').length > 100"));
  const json cells = browser().Evaluate(
      "[...document.querySelectorAll('#numbers tbody tr')].map(row => row.cells[3].textContent)");
  at = 0;
  for (const Row& row : rows) {
    if (row[2] == "P1") {
      EXPECT_EQ(std::stof(cells.at(at++).get<std::string>()), std::stof(row[4]));
    }
  }
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

TEST_F(WholeRunReportTest, InflowTablesEventsAndTheRunAreThere) {
  ASSERT_NO_FATAL_FAILURE(Run());
  ASSERT_NO_FATAL_FAILURE(Open(directory_.File("report.html")));
  const std::vector<Row> rows = RowsOf(directory_.File("results/ipr.csv"));
  browser().Evaluate("document.querySelector('#inflow details').open = true");
  ASSERT_TRUE(browser().Becomes("document.querySelectorAll('#inflow tbody tr').length === 30"));
  const json shown = browser().Evaluate(
      "[...document.querySelectorAll('#inflow details tbody tr')].map(row => "
      "[row.cells[0].textContent,"
      " row.cells[1].textContent, row.cells[4].textContent, row.cells[5].textContent])");
  ASSERT_EQ(rows.size(), 31U);
  for (std::size_t i = 0; i < shown.size(); ++i) {
    EXPECT_EQ(shown[i][0], rows[i + 1][2]);
    EXPECT_EQ(shown[i][1], rows[i + 1][0]);
    for (const std::size_t k : {0U, 1U}) {
      EXPECT_EQ(std::stof(shown[i][2 + k].get<std::string>()), std::stof(rows[i + 1][4 + k]));
    }
  }
  EXPECT_EQ(browser().Evaluate("[...document.querySelectorAll('#events tbody tr')].map(row => "
                               "row.textContent)")[2],
            "37302021-12-31shut P3");
  EXPECT_THAT(Text("#run"), HasSubstr("day 730: shut P3; constrain P2 bhp=1500"));
  EXPECT_THAT(Text("#state"), HasSubstr("the plan was carried out, at 2029-12-29, day 3650"));
  EXPECT_THAT(Text("#wall table"), HasSubstr("waiting for the launch"));
  // An event is said to whom points at it.
  browser().Evaluate("scrollTo(0, document.querySelector('#plot-oil_rate').offsetTop - 100)");
  for (int i = 0; i < 26; ++i) Press("oil_rate", "ArrowRight");
  EXPECT_THAT(Text("#charts figcaption span"), HasSubstr("3–4: shut P3; constrain P2 bhp=1500"));
  EXPECT_THAT(Text("#spoken"), HasSubstr("2021-12-31, day 730; Field "));
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

TEST_F(WholeRunReportTest, PageFitsTheWindow) {
  ASSERT_NO_FATAL_FAILURE(Run());
  // As it would be at a site.
  json run = json::parse(directory_.Read("results/run.json"));
  run.update({{"plan", "north.toml"},
              {"deck", "/data/north/TENWELLS.afi"},
              {"daemon", "cluster7:5000"},
              {"simulator_host", "node17"},
              {"user", "asmith"}});
  directory_.Write("results/run.json", run.dump());
  Results results = ReadResults(directory_.File("results"));
  results.directory = "results";
  WriteReport(results, directory_.File("report.html"));
  ASSERT_NO_FATAL_FAILURE(Open(directory_.File("report.html")));
  EXPECT_LE(browser().Evaluate("document.documentElement.scrollWidth"), 1360);
  const char* kept = getenv("JOBMILL_PICTURES");
  const std::string pictures = kept != nullptr ? kept : directory_.path().string();
  const auto photograph = [&](const std::string& file, const std::string& hidden) {
    browser().Evaluate("for (const part of document.querySelectorAll('" + hidden +
                       "')) part.hidden = true");
    browser().Photograph(pictures + "/" + file);
    EXPECT_GT(std::filesystem::file_size(pictures + "/" + file), 50'000U);
  };
  browser().Evaluate(
      "for (const box of [...document.querySelectorAll('#kinds input')].slice(8)) "
      "if (box.checked) box.click()");
  ASSERT_TRUE(browser().Becomes("document.querySelectorAll('#charts figure').length === 7"));
  browser().Evaluate("find('plot-tubing_head_pressure').parentElement.hidden = true");
  photograph("report.png", "#events, #last, #totals, #inflow, #wall");
  browser().Evaluate("for (const name of ['events', 'last', 'inflow']) find(name).hidden = false");
  photograph("report-tables.png", "header, #run, section:has(#charts)");
}

// Names of wells come from decks, titles from whoever writes the plan.
TEST_F(ReportPageTest, HostileNamesAreShownAndNothingElse) {
  const std::string script = "</script><script>window.hacked = 1</script>";
  const std::string image = "<img src=x onerror='window.hacked = 2'>";
  const std::string comment = "<!--<script>";
  json run{{"title", script + image + comment},
           {"start_date", "2020-01-01"},
           {"components", {script, "\"&'` "}},
           {"end", image},
           {"record", {comment}},
           {"events", {{{"at", "day 1"}, {"commands", {script}}}}}};
  OpenResults({{"run.json", run.dump()},
               {"events.csv", "time_days,date,command\n1,x,\"shut " + script + "\"\n"},
               {"ipr.csv", "time_days,date,well,point,pressure [" + image +
                               "],oil_rate,gas_rate\n"
                               "1,x,\"" +
                               script + "\",1,200,5,6\n1,x,\"" + script + "\",2,250,0,0\n"},
               {"vars.csv", "time_days,date,well,CONSTRUCTOR\n0,x,\"" + script + "\",3\n"},
               {"data.csv", "time_days,date,well,status,oil_rate [" + image + "],\"" + comment +
                                "\"\n"
                                "0,x,\"" +
                                script + "\",\"" + image +
                                "\",5,7\n"
                                "1,x,\"" +
                                script +
                                "\",OPEN,4,8\n"
                                "1,x,\"" +
                                image + "\",OPEN,4,8\n1,x,\"" + comment + "\",OPEN,4,8\n"}});
  EXPECT_EQ(Text("h1"), script + image + comment);
  EXPECT_EQ(browser().Evaluate("document.title"), script + image + comment);
  EXPECT_EQ(Text("#list li:nth-child(2)"), " " + script);
  EXPECT_EQ(Text("#plot-oil_rate .u-series:nth-child(3) .u-label"), script);
  EXPECT_EQ(Text("#events tbody td:last-child"), "shut " + script);
  EXPECT_EQ(Values(browser(), 0, "oil_rate"), json({5, 4}));
  EXPECT_EQ(browser().Evaluate("document.images.length"), 0);
  EXPECT_THAT(Text("#kinds"), HasSubstr("constructor")) << "a property like any other";
  EXPECT_EQ(browser().Evaluate("typeof window.hacked"), "undefined");
  EXPECT_EQ(browser().Evaluate("document.scripts.length"),
            browser().Evaluate("4 + meta.wells.length + meta.inflow.length"));
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

// The page of an engineer cannot be made to talk to anybody.
TEST_F(ReportPageTest, BrowserRefusesEveryOtherScriptAndAllTraffic) {
  OpenResults({});
  browser().Evaluate(
      "{ const made = document.createElement('script'); made.textContent = 'window.hacked = 1'; "
      "document.body.append(made); }");
  EXPECT_EQ(browser().Evaluate("typeof window.hacked"), "undefined");
  EXPECT_EQ(browser().Evaluate("fetch('http://127.0.0.1:9/').then(() => 'sent', () => 'refused')"),
            "refused");
  const auto forbidden = HasSubstr("violates the following Content Security Policy directive");
  EXPECT_THAT(browser().complaints(),
              testing::IsSupersetOf({testing::AllOf(forbidden, HasSubstr("inline script")),
                                     testing::AllOf(forbidden, HasSubstr("http://127.0.0.1:9/"))}));
}

TEST_F(ReportPageTest, WhatIsChosenStaysWhenTheRunGoesOn) {
  const std::string head = "time_days,date,well,status,oil_rate [sm3/d]\n";
  std::string rows;
  const auto write = [&](int until, std::optional<std::chrono::seconds> again) {
    rows.clear();
    for (int day = 0; day <= until; ++day) {
      for (int well = 1; well <= 30; ++well) {
        rows += fmt::format("{},x,W{},OPEN,{}\n", day, well, 1000 - day - well);
      }
    }
    directory_.Write("data.csv", head + rows);
    WriteReport(ReadResults(directory_.path().string()), directory_.File("report.html"), again);
  };
  directory_.Write("steps.csv", "time_days,date,ended\n0,2020-01-01,false\n");
  write(10, std::chrono::seconds(1));
  ASSERT_NO_FATAL_FAILURE(Open(directory_.File("report.html")));
  // Somebody may have killed the run, or closed the laptop on it.
  EXPECT_THAT(Text("#state"),
              testing::ContainsRegex("^Running, at .*; as of [0-9]{4}-[0-9]{2}-[0-9]{2}"));
  browser().Evaluate("find('none').click()");
  browser().Evaluate("[...document.querySelectorAll('#list input')][27].click()");
  browser().Evaluate("document.querySelector('[value=day]').click()");
  browser().Evaluate("zoom([2, 8])");
  browser().Evaluate("find('plot-oil_rate').focus()");
  write(20, {});  // the run has ended: the page stays as it is from here on
  ASSERT_TRUE(browser().Becomes("meta.days.length === 21"));
  ASSERT_TRUE(
      browser().Becomes("document.querySelectorAll('#plot-oil_rate .u-series').length === 3"));
  EXPECT_EQ(Text("#plot-oil_rate .u-series:nth-child(3) .u-label"), "W27");
  EXPECT_EQ(browser().Evaluate("chosen.range"), json({2, 8}));
  EXPECT_EQ(browser().Evaluate("chosen.axis"), "day");
  EXPECT_EQ(browser().Evaluate("document.activeElement.id"), "plot-oil_rate");
  EXPECT_THAT(Text("#state"), Not(HasSubstr("Running")));
  EXPECT_EQ(browser().Evaluate("find('live').hidden"), true);
}

TEST_F(ReportPageTest, SomebodyWhoTypesOrPausesIsNotDisturbed) {
  directory_.Write("steps.csv", "time_days,date,ended\n");
  directory_.Write("data.csv",
                   "time_days,date,well,status,oil_rate\n0,x,P1,OPEN,1\n1,x,P1,OPEN,1\n");
  WriteReport(ReadResults(directory_.path().string()), directory_.File("report.html"),
              std::chrono::seconds(1));
  ASSERT_NO_FATAL_FAILURE(Open(directory_.File("report.html")));
  browser().Evaluate("window.same = 1");
  browser().Evaluate("find('filter').focus()");
  const auto wait =
      "new Promise(resolve => setTimeout(resolve, 3500)).then(() => window.same ?? 0)";
  EXPECT_EQ(browser().Evaluate(wait), 1);
  browser().Evaluate("find('pause').focus(); find('pause').click()");
  EXPECT_EQ(browser().Evaluate(wait), 1);
  browser().Evaluate("find('pause').click()");
  EXPECT_TRUE(browser().Becomes("window.same === undefined"));
}

TEST_F(ReportPageTest, TimesOfAllKindsAreTold) {
  // Steps of seconds among years, before 1970 and after 2038.
  OpenResults({{"run.json", R"({"start_date": "1968-12-31"})"},
               {"data.csv",
                "time_days,date,well,status,oil_rate [STB/d],gas_rate [MMscf/d]\n"
                "0,x,P1,OPEN,100,1\n0.00002,x,P1,OPEN,99,1\n0.5,x,P1,OPEN,98,1\n"
                "30.999999,x,P1,OPEN,97,1\n366,x,P1,OPEN,50,2\n366,x,P1,SHUT,0,0\n30000,x,P1,OPEN,"
                "20,3\n"}});
  EXPECT_EQ(browser().Evaluate("meta.days.map(dateOf)"),
            json({"1968-12-31", "1968-12-31 00:00", "1968-12-31 12:00", "1969-01-31", "1970-01-01",
                  "1970-01-01", "2051-02-19"}));
  EXPECT_EQ(Values(browser(), 0, "oil_rate"), json({100, 99, 98, 97, 50, 0, 20}));
  EXPECT_EQ(Values(browser(), 0, "gas_oil_ratio"),
            json({10000, 1e6F / 99, 1e6F / 98, 1e6F / 97, 40000, nullptr, 150000}));
  Press("oil_rate", "End");
  EXPECT_EQ(Text("#plot-oil_rate .u-series:nth-child(1) .u-value"), "2051-02-19, day 30000");
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

TEST_F(ReportPageTest, CopyTakesAllRowsWithAllDigits) {
  std::string rows = "time_days,date,well,status,oil_rate [sm3/d],water_rate [sm3/d]\n";
  for (int day = 0; day < 1000; ++day) {
    rows += fmt::format("{0},x,P1,OPEN,{1},0\n{0},x,P 2,OPEN,0.1,{0}\n", day, 1000.125 - day);
  }
  OpenResults({{"steps.csv", "time_days,date,ended\n0,2020-01-01,false\n"}, {"data.csv", rows}});
  browser().Evaluate(
      "Object.defineProperty(navigator, 'clipboard', {value: {writeText: async (text) => { "
      "window.copied = text; }}})");
  const auto copied = [&](const std::string& section) {
    browser().Evaluate("window.copied = ''");
    browser().Evaluate("document.querySelector('#" + section + " .copy').click()");
    EXPECT_TRUE(browser().Becomes("window.copied !== ''"));
    return browser().Evaluate("window.copied").get<std::string>();
  };
  browser().Evaluate("find('numbers').open = true");
  ASSERT_TRUE(browser().Becomes("document.querySelectorAll('#numbers tbody tr').length === 400"));
  EXPECT_EQ(Text("#numbers .row .soft"), "400 of 1000 rows; Copy takes all");
  const std::string text = copied("numbers");
  EXPECT_THAT(text, testing::StartsWith("day\tdate\tField [sm3/d]\tP1 [sm3/d]\tP 2 [sm3/d]\n"
                                        "0\t2020-01-01\t1000.225\t1000.125\t0.1\n"
                                        "1\t2020-01-02\t999.225\t999.125\t0.1\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1001);
  EXPECT_EQ(copied("totals"),
            "well\tOil produced [sm3]\tWater produced [sm3]\nP1\t499624.875\t0\n"
            "P 2\t99.9\t499500\nField\t499724.775\t499500\n");
  // Where the page may not reach the clipboard, an older way is left.
  browser().Evaluate(
      "navigator.clipboard.writeText = () => Promise.reject(new Error()); document.execCommand = "
      "(what) => { window.copied = what + document.activeElement.value; }");
  EXPECT_THAT(copied("totals"), testing::StartsWith("copywell\tOil"));
}

TEST_F(ReportPageTest, DraggingAcrossAChartZoomsAllOfThem) {
  std::string rows = "time_days,date,well,status,oil_rate,water_rate\n";
  for (int day = 0; day <= 100; ++day) rows += fmt::format("{},x,P1,OPEN,5,6\n", day);
  OpenResults({{"data.csv", rows}});
  const auto mouse = [&](const std::string& kind, const std::string& target, double part) {
    browser().Evaluate(fmt::format(
        "{{ const over = document.querySelector('#plot-oil_rate .u-over'); const place = "
        "over.getBoundingClientRect(); {}.dispatchEvent(new MouseEvent('{}', {{bubbles: true, "
        "movementX: 9, "
        "clientX: place.x + place.width * {}, clientY: place.y + 20}})) }}",
        target, kind, part));
  };
  mouse("mousemove", "over", 0.2);
  mouse("mousedown", "over", 0.2);
  mouse("mousemove", "over", 0.6);
  mouse("mouseup", "document", 0.6);
  ASSERT_TRUE(browser().Becomes("chosen.range !== null"));
  const json range = browser().Evaluate("chosen.range");
  EXPECT_NEAR(range.at(0), 20, 1);
  EXPECT_NEAR(range.at(1), 60, 1);
  for (const char* chart : {"oil_rate", "water_rate"}) {
    const json seen = browser().Evaluate(fmt::format(
        "(u => [toDays(u.scales.x.min), toDays(u.scales.x.max)])(charts.get(find('plot-{}')).u)",
        chart));
    EXPECT_EQ(seen, range) << chart;
  }
  mouse("dblclick", "over", 0.5);
  EXPECT_TRUE(browser().Becomes("chosen.range === null"));
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

TEST_F(ReportPageTest, CurvesStandOutFromThePaper) {
  OpenResults({{"data.csv", "time_days,date,well,status,oil_rate\n0,x,P1,OPEN,1\n"}});
  const std::string least =
      "(() => { const light = (name) => { const parts = ink(name).replace('#', "
      "'').replace(/^(.)(.)(.)$/, "
      "'$1$1$2$2$3$3').match(/../g).map((part) => parseInt(part, 16) / 255).map((value) => value "
      "<= 0.04045 "
      "? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4); return 0.2126 * parts[0] + 0.7152 * "
      "parts[1] + "
      "0.0722 * parts[2]; }; const paper = light('paper'); const of = (name) => { const own = "
      "light(name); "
      "return (Math.max(own, paper) + 0.05) / (Math.min(own, paper) + 0.05); }; return {curves: "
      "Math.min(...[0, 1, 2, 3, 4, 5, 6].map((i) => of('c' + i))), texts: Math.min(of('ink'), "
      "of('soft'), "
      "of('link'), of('event'))}; })()";
  for (const char* scheme : {"light", "dark"}) {
    browser().Prefer("prefers-color-scheme", scheme);
    const json contrast = browser().Evaluate(least);
    EXPECT_GE(contrast.at("curves"), 3) << scheme;
    EXPECT_GE(contrast.at("texts"), 4.5) << scheme;
  }
}

TEST_F(ReportPageTest, PaperGetsAllChartsAtTwiceTheResolution) {
  std::string rows = "time_days,date,well,status,oil_rate,water_rate,gas_rate\n";
  for (int day = 0; day < 50; ++day) rows += fmt::format("{},x,P1,OPEN,{},3,4\n", day, 100 - day);
  OpenResults({{"data.csv", rows}});
  browser().Evaluate("dispatchEvent(new Event('beforeprint'))");
  const std::string widths =
      "[...document.querySelectorAll('#charts canvas')].map(one => one.width)";
  ASSERT_TRUE(browser().Becomes("(" + widths + ").length === charts.size && (" + widths +
                                ").every(width => width === 1320)"));
  EXPECT_TRUE(browser().Becomes("find('plot-oil_rate').offsetHeight < 300"));
  browser().Evaluate("dispatchEvent(new Event('afterprint'))");
  EXPECT_TRUE(browser().Becomes("(" + widths + ").every(width => width < 800)"));
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

// Programs print as soon as the page is loaded, and people before they have looked at all of it.
TEST_F(ReportPageTest, PaperGetsTheCurvesThatNoWindowHasShown) {
  const json event{{"at", "day 1"}, {"commands", {"ipr W0"}}};
  const json run{{"events", std::vector<json>(100, event)}};
  std::string rows = "time_days,date,well,status,oil_rate,bottom_hole_pressure\n";
  for (int day = 0; day < 50; ++day) {
    for (int well = 0; well < 6; ++well) rows += fmt::format("{},x,W{},OPEN,3,200\n", day, well);
  }
  browser().Open("file://" + PageOf({{"run.json", run.dump()},
                                     {"data.csv", rows},
                                     {"ipr.csv",
                                      "time_days,date,well,point,bottom_hole_pressure,oil_rate\n"
                                      "1,x,W0,1,200,5\n1,x,W0,2,250,0\n"}}));
  EXPECT_EQ(browser().Evaluate("[...charts.values()].some((chart) => chart.seen)"), false);
  const std::string printed =
      "dispatchEvent(new Event('beforeprint')), [...charts.values()].map((chart) => "
      "`${chart.plot.id}: ${chart.u.series.length - 1} ${chart.empty.textContent}`)";
  EXPECT_EQ(browser().Evaluate(printed),
            json({"plot-oil_rate: 6 ", "plot-bottom_hole_pressure: 5 ", "plot-oil_total: 6 ",
                  "plot-liquid-bottom_hole_pressure: 1 "}));
  browser().Evaluate("dispatchEvent(new Event('afterprint'))");
  // Of a well that has been chosen a moment ago the browser does not wait for the values.
  const std::string choose = "[...document.querySelectorAll('#list input')].at(-1).click(), ";
  EXPECT_EQ(browser().Evaluate(choose + printed).at(0),
            "plot-oil_rate: 6 Curves are missing here: the page had not read them yet.");
  EXPECT_TRUE(browser().Becomes("decoded.has(5)"));
  EXPECT_EQ(browser().Evaluate(printed).at(0), "plot-oil_rate: 7 ");
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

// Two producers at every stop; all wells at an event, after which the injector is shut.
TEST_F(ReportPageTest, WhatWasNotRecordedIsNotShownAsKnown) {
  const std::string head =
      "time_days,date,well,status,oil_rate [STB/d],water_injection_rate [STB/d],temperature\n";
  const std::string wells =
      "time_days,date,well,type,status\n0,x,WI1,INJECTOR,OPEN\n20,x,WI1,INJECTOR,SHUT\n";
  const std::string steps = "time_days,date,ended\n0,2020-01-01,false\n10,x,false\n20,x,false\n";
  OpenResults({{"steps.csv", steps},
               {"wells.csv", wells},
               {"data.csv", head + "0,x,P1,OPEN,100,0,\n0,x,P2,OPEN,50,0,\n"
                                   "10,x,P1,OPEN,100,0,\n10,x,P2,OPEN,50,0,\n"
                                   "10,x,P1,OPEN,100,0,60\n10,x,WI1,OPEN,0,4500,20\n"
                                   "20,x,P1,OPEN,90,0,\n20,x,P2,OPEN,40,0,\n"}});
  const auto rows = [&](const std::string& section) {
    return browser().Evaluate("[...document.querySelectorAll('#" + section +
                              " tr')].map(row => [...row.cells].map(cell => cell.textContent))");
  };
  EXPECT_EQ(Text("#last-title"), "Wells at the last stop, 2020-01-21, day 20");
  EXPECT_EQ(rows("last"),
            json({{"well", "type", "status", "Oil rate [STB/d]", "Water injection rate [STB/d]"},
                  {"P1", "", "OPEN", "90", "0"},
                  {"P2", "", "OPEN", "40", "0"},
                  {"WI1", "INJECTOR", "SHUT", "", ""}}));
  EXPECT_EQ(rows("totals"), json({{"well", "Oil produced [STB]", "Water injected [STB]"},
                                  {"P1", "1900", "0"},
                                  {"P2", "900", "0"},
                                  {"WI1", "", ""},
                                  {"Sum of 2 of 3 wells", "2800", "0"}}));
  EXPECT_EQ(browser().Evaluate("find('totals-note').hidden"), false);
  EXPECT_EQ(
      Text("#field-note"),
      "Sum of 2 of 3 wells: those whose rates were recorded at every stop since their first; the "
      "others are left out.");
  EXPECT_EQ(Values(browser(), -1, "oil_rate"), json({150, 150, 150, 130}));
  EXPECT_EQ(Values(browser(), 2, "water_injection_total"), nullptr);
  EXPECT_EQ(Values(browser(), 0, "oil_total"), json({0, 1000, 1000, 1900}));
  browser().Evaluate("[...document.querySelectorAll('#list input')].at(-1).click()");
  EXPECT_TRUE(
      browser().Becomes("find('plot-water_injection_total').nextSibling.textContent === "
                        "'Not known of WI1: rates were not recorded at every stop.'"));

  // Rates at one stop only, before the last one.
  OpenResults({{"steps.csv", steps},
               {"wells.csv", wells},
               {"data.csv", head + "10,x,P1,OPEN,100,0,\n10,x,WI1,OPEN,0,4500,\n"}});
  EXPECT_EQ(rows("last"),
            json({{"well", "type", "status"}, {"P1", "", ""}, {"WI1", "INJECTOR", "SHUT"}}));
  EXPECT_EQ(rows("totals"), json({{"well", "Oil produced [STB]", "Water injected [STB]"},
                                  {"P1", "", ""},
                                  {"WI1", "", ""},
                                  {"Field", "", ""}}));
  EXPECT_EQ(Text("#kinds"), " Oil rate Water injection rate Temperature");
  EXPECT_EQ(Text("#field-note"), "Field: the sums over the 2 wells that were recorded.");
  EXPECT_EQ(browser().Evaluate("whole()"), json({0, 20}));

  // No well is without gaps.
  OpenResults(
      {{"steps.csv", steps}, {"data.csv", head + "0,x,P1,OPEN,100,0,\n10,x,P2,OPEN,50,0,\n"}});
  EXPECT_EQ(Text("#field-note"),
            "Field: not known; no rates of a well were recorded at every stop.");
  EXPECT_EQ(rows("last"), json({{"well"}, {"P1"}, {"P2"}}));
  EXPECT_EQ(browser().Evaluate("find('last').hidden"), true);

  // The field's own record has what the wells lack.
  OpenResults({{"steps.csv", steps},
               {"field.csv", "time_days,date,oil_rate [STB/d]\n0,x,150\n10,x,150\n20,x,130\n"},
               {"data.csv", head + "10,x,P1,OPEN,100,0,\n10,x,WI1,OPEN,0,4500,\n"}});
  EXPECT_EQ(rows("totals").back(), json({"Field", "2800", ""}));
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

TEST_F(ReportPageTest, SumOfSomeWellsDoesNotGoByTheNameOfTheField) {
  OpenResults({{"run.json", R"({"wells": 10})"},
               {"steps.csv", "time_days,date,ended\n0,2020-01-01,false\n10,x,false\n"},
               {"data.csv", "time_days,date,well,oil_rate [STB/d]\n0,x,P1,100\n10,x,P1,100\n"}});
  EXPECT_THAT(Text("#field-note"), testing::StartsWith("Sum of 1 of 10 wells: "));
}

TEST_F(ReportPageTest, NumbersOfEventsStandAboveTheCurves) {
  OpenResults({{"events.csv", "time_days,date,command\n1,x,shut P1\n"},
               {"data.csv",
                "time_days,date,well,status,water_injection_rate\n0,x,WI1,OPEN,13000\n"
                "9,x,WI1,OPEN,13000\n"}});
  const std::string top =
      "(() => { const u = charts.get(find('plot-water_injection_rate')).u; return "
      "u.valToPos(13000, 'y') / scale; })()";
  constexpr double kNumber = 2 + 11;  // pixels from the upper edge
  EXPECT_GT(browser().Evaluate(top), kNumber);
  browser().Evaluate("dispatchEvent(new Event('beforeprint'))");
  EXPECT_GT(browser().Evaluate(top), kNumber);
}

// 500 wells and 10,000 steps, noisy as a simulator's results are.
Results LargestRun() {
  constexpr int kWells = 500;
  constexpr int kSteps = 10'000;
  Results results;
  results.start_date = "2020-01-01";
  results.quantities = {{"oil_rate", "sm3/d"},
                        {"water_rate", "sm3/d"},
                        {"gas_rate", "sm3/d"},
                        {"bottom_hole_pressure", "bar"},
                        {"tubing_head_pressure", "bar"}};
  results.field_quantities = {results.quantities.begin(), results.quantities.begin() + 3};
  results.field.assign(3, std::vector<float>(kSteps));
  for (int step = 0; step < kSteps; ++step) results.days.push_back(step);
  std::minstd_rand random(1);
  std::uniform_real_distribution<double> noise(0.999, 1.001);
  for (int number = 0; number < kWells; ++number) {
    WellResults& well = results.wells.emplace_back();
    well.name = fmt::format("W{}", number);
    well.values.resize(results.quantities.size());
    for (int step = 0; step < kSteps; ++step) {
      const double oil = (1000 + number) * std::exp(-step / 4000.0);
      const double water = oil * step / (1.1 * kSteps - step);
      const std::array<double, 5> row{oil, water, 120 * oil, 300 - oil / 10, 100 - oil / 20};
      for (std::size_t i = 0; i < row.size(); ++i) {
        const auto value = static_cast<float>(row[i] * noise(random));
        well.values[i].push_back(value);
        if (i < 3) results.field[i][static_cast<std::size_t>(step)] += value;
      }
    }
  }
  return results;
}

// Times are told, not judged.
TEST_F(ReportPageTest, PageOfTheLargestRunOpensAndDecodesWhatIsChosen) {
  using Clock = std::chrono::steady_clock;
  auto begin = Clock::now();
  const auto tell = [&](const char* what) {
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    printf("report of 500 wells and 10,000 steps: %s in %.2f s\n", what, seconds);
    begin = Clock::now();
  };
  const Results results = LargestRun();
  tell("made up");
  const std::string file = directory_.File("report.html");
  WriteReport(results, file);
  tell("written");
  // 25 million values of 4 bytes, of which one and a half are noise.
  const std::uintmax_t size = std::filesystem::file_size(file);
  printf("report of 500 wells and 10,000 steps: %.1f MB\n", static_cast<double>(size) / 1e6);
  EXPECT_LT(size, 110'000'000U);
  begin = Clock::now();
  ASSERT_NO_FATAL_FAILURE(Open(file));
  tell("opened, the first charts drawn");
  browser().Evaluate("find('none').click()");
  browser().Evaluate(
      "for (const box of [...document.querySelectorAll('#list input')].slice(-20)) box.click()");
  const char* drawn =
      "drawing === 0 && redrawing === 0 && document.querySelectorAll('#plot-oil_rate "
      ".u-series').length === 22";
  ASSERT_TRUE(browser().Becomes(drawn));
  tell("20 other wells chosen and drawn");
  browser().Evaluate("zoom([2000, 4000])");
  tell("zoomed");
  browser().Evaluate(
      "for (let i = 0; i < 100; ++i) find('plot-oil_rate').dispatchEvent(new KeyboardEvent("
      "'keydown', {key: 'ArrowRight'}))");
  tell("a hundred stops pointed at");
  EXPECT_EQ(browser().Evaluate("[...document.querySelectorAll('#list input')][1].click(), "
                               "wellsChosen().length"),
            20)
      << "no more than twenty at a time";
  const json values = Values(browser(), 499, "water_rate");
  ASSERT_EQ(values.size(), results.days.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_EQ(values[i], results.wells[499].values[1][i]) << i;
  }
  EXPECT_THAT(browser().complaints(), IsEmpty());
}

}  // namespace
}  // namespace vkmaster
