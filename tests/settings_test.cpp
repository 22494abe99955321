// The settings store: what it keeps, and what it survives.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "QuorvaSDK/StorageKeys.h"
#include "platform/Bundle.h"
#include "platform/UserDefaults.h"
#include "tests/Support.h"

namespace quorva::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using Text = std::optional<std::string>;

class Settings : public testing::Test {
 protected:
  test::TemporaryDirectory directory;
  const fs::path file = directory.path() / "data" / "quorva" / "app.sqlite";

  // Does `work` in a process of its own, which ends by kill -9 right behind it.
  template <class Work>
  static void inKilledProcess(Work work) {
    const pid_t child = fork();
    if (child == 0) {
      work();
      kill(getpid(), SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
  }

  void execute(const char* sql) const {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
  }
};

TEST_F(Settings, TellAbsentFromEmptyAndTypesApart) {
  UserDefaults settings(file);
  EXPECT_EQ(settings.get<std::string>("k"), std::nullopt);
  settings.set("k", ""s);
  EXPECT_EQ(settings.get<std::string>("k"), "");
  settings.set("k", "a\0b é"s);
  EXPECT_EQ(settings.get<std::string>("k"), "a\0b é"s);
  EXPECT_EQ(settings.get<bool>("k"), std::nullopt);
  EXPECT_EQ(settings.get<std::string>("K"), std::nullopt) << "keys have a case";
  settings.set("k", false);
  EXPECT_EQ(settings.get<bool>("k"), false);
  EXPECT_EQ(settings.get<std::string>("k"), std::nullopt);
  settings.set("k", std::nullopt);
  EXPECT_EQ(settings.get<bool>("k"), std::nullopt);
}

TEST_F(Settings, OfAnotherTypeReadAsTheirDefault) {
  { const UserDefaults settings(file); }
  execute("INSERT INTO settings VALUES ('real', 1.5), ('blob', x'00')");
  UserDefaults settings(file);
  EXPECT_EQ(settings.get<std::string>("real"), std::nullopt);
  EXPECT_EQ(settings.get<bool>("blob"), std::nullopt);
}

TEST_F(Settings, AreTheOwnersAlone) {
  UserDefaults settings(file);
  settings.set("k", true);
  struct stat status {};
  ASSERT_EQ(stat(file.parent_path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
  for (const char* suffix : {"", "-wal", "-shm"}) {
    ASSERT_EQ(stat((file.string() + suffix).c_str(), &status), 0) << suffix;
    EXPECT_EQ(status.st_mode & 0777, 0600U) << suffix;
  }
}

TEST_F(Settings, SurviveAKillRightBehindTheWrite) {
  for (int launch = 0; launch < 5; ++launch) {
    inKilledProcess([&] {
      UserDefaults settings(file);
      settings.set("launch", std::to_string(launch));
      settings.set("flag", launch % 2 == 0);
    });
    UserDefaults settings(file);
    EXPECT_EQ(settings.get<std::string>("launch"), std::to_string(launch));
    EXPECT_EQ(settings.get<bool>("flag"), launch % 2 == 0);
  }
}

TEST_F(Settings, AreSharedByProcessesAndThreads) {
  constexpr int writes = 200;
  const pid_t child = fork();
  if (child == 0) {
    UserDefaults settings(file);
    for (int i = 0; i < writes; ++i) settings.set("child" + std::to_string(i), true);
    _exit(0);
  }
  UserDefaults settings(file);
  {
    std::vector<std::jthread> threads;
    for (const char* name : {"a", "b"}) {
      threads.emplace_back([&settings, name] {
        for (int i = 0; i < writes; ++i) settings.set(name + std::to_string(i), true);
      });
    }
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  for (const char* name : {"a", "b", "child"}) {
    for (int i = 0; i < writes; ++i)
      EXPECT_EQ(settings.get<bool>(name + std::to_string(i)), true) << name << i;
  }
}

TEST_F(Settings, SetADamagedFileAside) {
  struct Row {
    const char* what;
    void (*damage)(const fs::path& file);
  };
  const Row rows[] = {
      {"no database at all", [](const fs::path& f) { test::writeFile(f, std::string(8192, 'x')); }},
      {"a header that means nothing",
       [](const fs::path& f) {
         std::fstream(f, std::ios::in | std::ios::out).write("SQLite format 4", 15);
       }},
      {"pages that mean nothing",
       [](const fs::path& f) {
         std::fstream stream(f, std::ios::in | std::ios::out);
         stream.seekp(100);
         stream << std::string(8000, '\xAA');
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    fs::remove_all(file.parent_path());
    {
      UserDefaults settings(file);
      settings.set("k", "old"s);
    }
    row.damage(file);
    UserDefaults settings(file);
    EXPECT_EQ(settings.get<std::string>("k"), std::nullopt);
    settings.set("k", "new"s);
    EXPECT_EQ(UserDefaults(file).get<std::string>("k"), "new") << "kept in a file again";
    EXPECT_TRUE(fs::exists(file.string() + ".damaged"));
  }
}

TEST_F(Settings, FindDamageThatComesLater) {
  UserDefaults settings(file);
  settings.set("k", "old"s);
  execute("PRAGMA wal_checkpoint(TRUNCATE)");
  test::writeFile(file, std::string(8192, 'x'));
  EXPECT_EQ(settings.get<std::string>("k"), std::nullopt);
  settings.set("k", "new"s);
  EXPECT_EQ(UserDefaults(file).get<std::string>("k"), "new");
}

TEST_F(Settings, LiveInMemoryWhereNothingCanBeWritten) {
  test::writeFile(directory.path() / "blocked", "a file where a directory is wanted");
  UserDefaults settings(directory.path() / "blocked" / "quorva" / "app.sqlite");
  settings.set("k", "v"s);
  EXPECT_EQ(settings.get<std::string>("k"), "v");
  settings.set("k", std::nullopt);
  EXPECT_EQ(settings.get<std::string>("k"), std::nullopt);

  UserDefaults busy(file);
  busy.set("k", "before"s);
  execute(
      "CREATE TRIGGER full BEFORE UPDATE ON settings BEGIN SELECT RAISE(ABORT, 'disk full'); END");
  busy.set("k", "after"s);
  EXPECT_EQ(busy.get<std::string>("k"), "after") << "as the process sees it";
  EXPECT_EQ(UserDefaults(file).get<std::string>("k"), "before");
}

TEST(StorageKeys, StandUnderTheirKeysInTheApplicationsOwnFile) {
  Bundle::setMain({.identifier = "com.example/../app", .infoDictionary = {}});
  EXPECT_EQ(StorageKeys::apiKey.get(), std::nullopt);
  EXPECT_EQ(StorageKeys::anonymousId.get(), std::nullopt);
  EXPECT_TRUE(StorageKeys::firstLaunch.get());

  StorageKeys::apiKey.set("qk");
  StorageKeys::anonymousId.set("");
  StorageKeys::firstLaunch.set(false);
  UserDefaults other(fs::path(std::getenv("XDG_DATA_HOME")) / "quorva" /
                     "com.example%2f..%2fapp.sqlite");
  EXPECT_EQ(other.get<std::string>("QV_API_KEY"), "qk");
  EXPECT_EQ(other.get<std::string>("QV_ANONYMOUS_ID"), "");
  EXPECT_EQ(other.get<bool>("QV_FIRST_TIME"), false);
  StorageKeys::anonymousId.set(std::nullopt);
  EXPECT_EQ(other.get<std::string>("QV_ANONYMOUS_ID"), std::nullopt);
}

}  // namespace
}  // namespace quorva::platform
