#include "config/env_collection.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log/flog.h"
#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace {

int InChild(const std::function<int()>& body) {
  ChildProcess::Options options;
  options.in_child = body;
  return ChildProcess({}, options).Wait(std::chrono::seconds(10)).value_or(-1);
}

class EnvCollectionTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"JT_A", "JT_B", "JT_PATH"}) unsetenv(name);
  }

  // Applies a file of this text; what was logged.
  std::string Apply(const std::string& text) {
    const CEnvCollection entries(directory_.Write("env", text).c_str());
    EXPECT_EQ(entries.status(), 0);
    char error[CEnvCollection::kErrorSize] = "untouched";
    EXPECT_EQ(entries.Apply(error, &log_), 0);
    EXPECT_STREQ(error, "untouched");
    return directory_.Read("log");
  }

  static std::string Value(const char* name) {
    const char* value = getenv(name);
    return value == nullptr ? "unset" : value;
  }

  TemporaryDirectory directory_;
  flog log_{directory_.File("log"), true};
};

TEST_F(EnvCollectionTest, MissingFileSetsAndLogsNothing) {
  const CEnvCollection entries(directory_.File("absent").c_str());
  char error[CEnvCollection::kErrorSize] = "untouched";
  EXPECT_EQ(entries.status(), 0);
  EXPECT_STREQ(entries.error(), "");
  EXPECT_EQ(entries.Apply(error, &log_), 0);
  EXPECT_EQ(directory_.Read("log"), "");
}

TEST_F(EnvCollectionTest, EntriesAreReachedInTheOrderOfTheFile) {
  const CEnvCollection entries(directory_.Write("env", "JT_B 1 JT_A 2\n").c_str());
  ASSERT_NE(entries.first(), nullptr);
  EXPECT_STREQ(entries.first()->name, "JT_B");
  ASSERT_NE(entries.first()->next, nullptr);
  EXPECT_STREQ(entries.first()->next->value, "2");
  EXPECT_EQ(CEnvCollection(directory_.File("absent").c_str()).first(), nullptr);
}

TEST_F(EnvCollectionTest, PairsOnOneLineAreAllSet) {
  EXPECT_EQ(Apply("JT_A 1 JT_B 2"),
            "Setting non-existing environment variable JT_A to 1\n"
            "Setting non-existing environment variable JT_B to 2\n");
  EXPECT_EQ(Value("JT_A"), "1");
  EXPECT_EQ(Value("JT_B"), "2");
}

TEST_F(EnvCollectionTest, LineEndsAndTabsSeparateLikeBlanks) {
  Apply("\n\tJT_A\n1\r\n\nJT_B\t 2\n");
  EXPECT_EQ(Value("JT_A"), "1");
  EXPECT_EQ(Value("JT_B"), "2");
}

TEST_F(EnvCollectionTest, ExistingVariableIsPrependedTo) {
  setenv("JT_PATH", "/y", 1);
  EXPECT_EQ(Apply("JT_PATH /x"), "Setting existing environment variable JT_PATH to /x:/y\n");
  EXPECT_EQ(Value("JT_PATH"), "/x:/y");
}

TEST_F(EnvCollectionTest, EachEntryOfOneNamePrepends) {
  setenv("JT_PATH", "/old", 1);
  Apply("JT_PATH /a JT_PATH /b JT_A /x JT_A /y");
  EXPECT_EQ(Value("JT_PATH"), "/b:/a:/old");
  EXPECT_EQ(Value("JT_A"), "/y:/x");
}

TEST_F(EnvCollectionTest, LastNameWithoutValueIsSetEmpty) {
  Apply("JT_A 1 JT_B");
  EXPECT_EQ(Value("JT_B"), "");
}

TEST_F(EnvCollectionTest, LastNameWithoutValueGetsAColonInFrontOfItsOldValue) {
  setenv("JT_B", "old", 1);
  Apply("JT_A 1 JT_B");
  EXPECT_EQ(Value("JT_B"), ":old");
}

TEST_F(EnvCollectionTest, EmptyExistingVariableIsPrependedToAsWell) {
  setenv("JT_B", "", 1);
  Apply("JT_B 4");
  EXPECT_EQ(Value("JT_B"), "4:");
}

TEST_F(EnvCollectionTest, TokensOf255CharactersFit) {
  const std::string value(255, 'v');
  const std::string name = "JT_" + std::string(252, 'N');
  Apply("JT_A " + value + "\n" + name + " fits\n");
  EXPECT_EQ(Value("JT_A"), value);
  EXPECT_EQ(Value(name.c_str()), "fits");
}

TEST_F(EnvCollectionTest, EntryWithALongerTokenIsLeftOutAndTheOthersStayPaired) {
  const std::string long_token(256, 'v');
  Apply("JT_A " + long_token + " " + long_token + " 1 JT_B 2");
  EXPECT_EQ(Value("JT_A"), "unset");
  EXPECT_EQ(Value("JT_B"), "2");
}

TEST_F(EnvCollectionTest, LongerTokenAtTheEndOfTheFileLeavesItsEntryOut) {
  Apply("JT_B 2 JT_A " + std::string(1000, 'v'));
  EXPECT_EQ(Value("JT_A"), "unset");
  EXPECT_EQ(Value("JT_B"), "2");
}

TEST_F(EnvCollectionTest, OneEntryIsAppliedByItself) {
  CEnv entry;
  strcpy(entry.name, "JT_A");
  strcpy(entry.value, "1");
  EXPECT_EQ(entry.Apply(nullptr, &log_), 0);
  EXPECT_EQ(Value("JT_A"), "1");
  strcpy(entry.value, "2");
  EXPECT_EQ(entry.Apply(nullptr, &log_), 0);
  EXPECT_EQ(Value("JT_A"), "2:1");
}

// Whoever starts the daemon may pass on such a word.
TEST_F(EnvCollectionTest, WordOfTheEnvironmentThatIsNoVariableIsPassedOn) {
  std::string word = "JT_A";
  std::array<char*, 2> words{word.data(), nullptr};
  const std::string path = Value("PATH");
  environ = words.data();
  Apply("JT_A 1");
  const std::string first = environ[0];
  const std::string second = environ[1];
  const std::string value = Value("JT_A");
  clearenv();  // the former one went when another was applied
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(first, "JT_A");
  EXPECT_EQ(second, "JT_A=1");
  EXPECT_EQ(value, "1");
}

// Otherwise the rest of the name would become the beginning of another variable's value.
TEST_F(EnvCollectionTest, NameWithAnEqualsSignSetsNothing) {
  setenv("JT_A", "old", 1);
  Apply("JT_A=x 1 JT_B=x 2 JT_PATH /x");
  EXPECT_EQ(Value("JT_A"), "old");
  EXPECT_EQ(Value("JT_B"), "unset");
  EXPECT_EQ(Value("JT_PATH"), "/x");
}

TEST_F(EnvCollectionTest, FirstOfAVariableThatIsThereTwiceCounts) {
  const CEnvCollection entries(directory_.Write("env", "JT_A x").c_str());
  EXPECT_EQ(InChild([&] {
              std::array<char*, 3> twice{const_cast<char*>("JT_A=first"),
                                         const_cast<char*>("JT_A=last"), nullptr};
              environ = twice.data();
              entries.Apply(nullptr, &log_);
              return Value("JT_A") == "x:first" ? 0 : 1;
            }),
            0);
  EXPECT_EQ(directory_.Read("log"), "Setting existing environment variable JT_A to x:first\n");
}

TEST_F(EnvCollectionTest, LongerNameLeavesItsEntryOut) {
  const std::string name(256, 'N');
  Apply(name + " 1 JT_B 2");
  EXPECT_EQ(Value("JT_B"), "2");
  EXPECT_EQ(Value(name.c_str()), "unset");
  EXPECT_EQ(Value(name.substr(1).c_str()), "unset");
}

TEST_F(EnvCollectionTest, EmptyNameEndsTheFile) {
  using std::string_literals::operator""s;
  Apply("JT_A 1\n\0X 2\nJT_B 3\n"s);
  EXPECT_EQ(Value("JT_A"), "1");
  EXPECT_EQ(Value("JT_B"), "unset");
}

TEST_F(EnvCollectionTest, ErrorsHave256Characters) {
  EXPECT_EQ(CEnvCollection::kErrorSize, 256);
}

TEST_F(EnvCollectionTest, DirectoryInPlaceOfTheFileIsAnEmptyList) {
  std::filesystem::create_directory(directory_.File("env"));
  const CEnvCollection entries(directory_.File("env").c_str());
  EXPECT_EQ(entries.status(), 0);
  entries.LogOut(&log_);
  EXPECT_EQ(directory_.Read("log"), "");
}

TEST_F(EnvCollectionTest, PipeOrDeviceInPlaceOfTheFileIsAnEmptyList) {
  const std::string pipe = directory_.File("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0644), 0);
  for (const char* file : {pipe.c_str(), "/dev/zero"}) {
    const CEnvCollection entries(file);
    char error[CEnvCollection::kErrorSize] = "";
    EXPECT_EQ(entries.Apply(error, &log_), 0);
    EXPECT_EQ(directory_.Read("log"), "") << file;
  }
}

TEST_F(EnvCollectionTest, ListingShowsNamesAndValues) {
  const CEnvCollection entries(directory_.Write("env", "JT_A 1\nJT_B").c_str());
  entries.LogOut(&log_);
  EXPECT_EQ(directory_.Read("log"),
            "Variable: JT_A, Value: 1\n"
            "Variable: JT_B, Value: \n");
}

TEST_F(EnvCollectionTest, ReadingReplacesTheFormerEntries) {
  CEnvCollection entries(directory_.Write("env", "JT_A 1").c_str());
  char error[CEnvCollection::kErrorSize] = "";
  EXPECT_EQ(entries.ReadEnvFile(directory_.Write("other", "JT_B 2").c_str(), error), 0);
  entries.LogOut(&log_);
  EXPECT_EQ(directory_.Read("log"), "Variable: JT_B, Value: 2\n");
  EXPECT_EQ(entries.ReadEnvFile(directory_.File("absent").c_str(), error), 0);
  entries.LogOut(&log_);
  EXPECT_EQ(directory_.Read("log"), "Variable: JT_B, Value: 2\n");
}

TEST_F(EnvCollectionTest, FileThatMayNotBeReadIsAnEmptyList) {
  const std::string file = directory_.Write("env", "JT_A 1");
  const int result = InChild([&file] {
    if (!AnswerCall(SYS_openat, [] { return static_cast<long>(-EACCES); })) return 77;
    const CEnvCollection entries(file.c_str());
    char error[CEnvCollection::kErrorSize] = "";
    flog log("", true);
    if (entries.status() != 0 || entries.Apply(error, &log) != 0) return 1;
    return Value("JT_A") == "unset" ? 0 : 2;
  });
  if (result == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(result, 0);
}

// Runs without their variables would fail in ways that nobody can explain.
TEST_F(EnvCollectionTest, FileThatThereIsNoMemoryToOpenThrows) {
  const std::string file = directory_.Write("env", "JT_A 1");
  const int result = InChild([&file] {
    if (!AnswerCall(SYS_openat, [] { return static_cast<long>(-ENOMEM); })) return 77;
    try {
      const CEnvCollection entries(file.c_str());
    } catch (const std::bad_alloc&) {
      return 0;
    }
    return 1;
  });
  if (result == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(result, 0);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which need more addresses
TEST_F(EnvCollectionTest, VariableThatThereIsNoMemoryForThrows) {
  const CEnvCollection entries(directory_.Write("env", "JT_A 1").c_str());
  EXPECT_EQ(InChild([&] {
              // One variable more takes a list of its own, of eight megabytes.
              std::vector<char*> many(1 << 20, const_cast<char*>("JT_MANY=1"));
              many.back() = nullptr;
              environ = many.data();
              rlimit usual{};
              getrlimit(RLIMIT_AS, &usual);
              const rlimit none{0, usual.rlim_max};
              if (setrlimit(RLIMIT_AS, &none) != 0) return 1;
              int result = 2;
              try {
                entries.Apply(nullptr, &log_);
              } catch (const std::bad_alloc&) {
                result = 0;
              }
              setrlimit(RLIMIT_AS, &usual);
              return result;
            }),
            0);
  // The line before that did not lack memory.
  EXPECT_EQ(directory_.Read("log"), "Setting non-existing environment variable JT_A to 1\n");
}
#endif

}  // namespace
