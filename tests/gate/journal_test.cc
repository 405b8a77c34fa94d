#include "gate/journal.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "base/descriptor.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/text_of_child.h"

namespace gate {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(JournalTest, CertificateOfManyNamesMakesNoLineThatAPipeTakesInParts) {
  const TemporaryDirectory directory;
  Json names = Json::array();
  for (int i = 0; i < 1000; ++i) names.push_back("upn:" + std::string(250, '\xe4'));
  Journal((directory.path() / "log").string()).Write("begun", {{"names", names}});
  const std::string line = directory.Read("log");
  EXPECT_LE(line.size(), 4096U);
  EXPECT_EQ(line.find('\n'), line.size() - 1);
  EXPECT_EQ(nlohmann::json::parse(line)["names"].back(), "...");
}

TEST(JournalTest, LongTextsAreCutShorterBeforeAnyIsLeftOut) {
  const TemporaryDirectory directory;
  Json names = Json::array();
  for (int i = 0; i < 20; ++i) names.push_back(std::string(250, static_cast<char>('a' + i)));
  Journal(directory.File("log")).Write("begun", {{"names", names}});
  const auto told = nlohmann::json::parse(directory.Read("log"))["names"];
  ASSERT_EQ(told.size(), 20U);
  EXPECT_EQ(told.back(), std::string(30, 't') + "...");
}

TEST(JournalTest, FileThatCannotBeOpenedIsNamed) {
  try {
    const Journal journal("/nonexistent/log");
    ADD_FAILURE() << "it was opened";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "/nonexistent/log: No such file or directory");
  }
}

TEST(JournalTest, RotatedFileIsLeftAndTheNewOneTaken) {
  const TemporaryDirectory directory;
  Journal journal(directory.File("log"));
  journal.Write("first", Json::object());
  std::filesystem::rename(directory.File("log"), directory.File("log.1"));
  journal.Write("second", Json::object());
  journal.Reopen();
  journal.Write("third", Json::object());
  EXPECT_THAT(directory.Read("log.1"), AllOf(HasSubstr("first"), HasSubstr("second")));
  EXPECT_THAT(directory.Read("log"), AllOf(HasSubstr("third"), Not(HasSubstr("second"))));
}

TEST(JournalTest, FileThatCannotBeOpenedAgainIsKept) {
  const TemporaryDirectory directory;
  Journal journal(directory.File("log"));
  std::filesystem::rename(directory.File("log"), directory.File("log.1"));
  std::filesystem::create_directory(directory.File("log"));
  journal.Reopen();
  journal.Write("after all", Json::object());
  EXPECT_THAT(directory.Read("log.1"), HasSubstr("after all"));
}

// A pipe, as to a service manager that has come to a stop, and then ends.
TEST(JournalTest, ReaderThatTakesNothingHoldsNobody) {
  const TemporaryDirectory directory;
  ASSERT_EQ(mkfifo(directory.File("log").c_str(), 0600), 0);
  Descriptor reader(open(directory.File("log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  Journal journal(directory.File("log"));
  const int size = fcntl(reader.get(), F_SETPIPE_SZ, 4096);
  const std::size_t lines = static_cast<std::size_t>(size) / 300 + 1;
  const Json fields{{"text", std::string(300, 'x')}};
  for (std::size_t i = 0; i < lines; ++i) journal.Write("some", fields);
  std::string taken(1 << 16, '\0');
  taken.resize(static_cast<std::size_t>(read(reader.get(), taken.data(), taken.size())));
  const auto whole = static_cast<std::size_t>(std::count(taken.begin(), taken.end(), '\n'));
  EXPECT_EQ(taken.back(), '\n');
  journal.Write("later", Json::object());
  std::string later(1000, '\0');
  later.resize(static_cast<std::size_t>(read(reader.get(), later.data(), later.size())));
  EXPECT_EQ(nlohmann::json::parse(later)["lines_left_out"], lines - whole);
  journal.Write("told once", Json::object());
  later.resize(1000);
  later.resize(static_cast<std::size_t>(read(reader.get(), later.data(), later.size())));
  EXPECT_FALSE(nlohmann::json::parse(later).contains("lines_left_out"));
  for (std::size_t i = 0; i < lines; ++i) journal.Write("some", fields);
  reader.Reset();
  journal.Write("to nobody", fields);
}

TEST(StatusFileTest, DocumentThatCannotBeWrittenWholeLeavesTheOneBefore) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write("status", "before\n");
  EXPECT_FALSE(ReplaceWhole(directory.File("none/status"), "after\n"));
  // A disk that is full after one byte: noticed while the document is written, or at its end.
  for (const std::size_t size : {std::size_t{100}, std::size_t{100'000}}) {
    EXPECT_EQ(TextOfChild([&]() -> std::string {
                signal(SIGXFSZ, SIG_IGN);
                const rlimit limit{1, RLIM_INFINITY};
                if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return "no limit";
                const bool written = ReplaceWhole(file, std::string(size, 'x'));
                const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
                setrlimit(RLIMIT_FSIZE, &none);
                return written ? "written" : "not written";
              }),
              "not written")
        << size;
    EXPECT_EQ(directory.Read("status"), "before\n");
  }
}

TEST(StatusFileTest, PlantedLinkIsNotFollowed) {
  const TemporaryDirectory directory;
  const std::string file = (directory.path() / "status").string();
  directory.Write("victim", "precious");
  std::filesystem::create_symlink(directory.path() / "victim", file + ".new");
  EXPECT_TRUE(ReplaceWhole(file, "status\n"));
  EXPECT_EQ(directory.Read("victim"), "precious");
  EXPECT_EQ(directory.Read("status"), "status\n");
  EXPECT_FALSE(std::filesystem::is_symlink(file));
}

}  // namespace
}  // namespace gate
