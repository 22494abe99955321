// The settings store: what it keeps, and what it survives.

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>
#include <tuple>

#include "QuorvaSDK/StorageKeys.h"
#include "platform/Bundle.h"
#include "platform/UserDefaults.h"
#include "tests/Support.h"

namespace quorva::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

class Settings : public testing::Test {
 protected:
  test::TemporaryDirectory directory;
  const fs::path file = directory.path() / "data" / "quorva" / "app.sqlite";

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
  for (const auto& text : {""s, "a\0b é"s}) {
    settings.set("k", text);
    EXPECT_EQ(settings.get<std::string>("k"), text);
  }
  EXPECT_EQ(settings.get<bool>("k"), std::nullopt);
  EXPECT_EQ(settings.get<std::string>("K"), std::nullopt) << "keys have a case";
  settings.set("k", false);
  EXPECT_EQ(settings.get<bool>("k"), false);
  EXPECT_EQ(settings.get<std::string>("k"), std::nullopt);
  settings.set("k", std::nullopt);
  EXPECT_EQ(settings.get<bool>("k"), std::nullopt);
  execute("INSERT INTO settings VALUES ('real', 1.5), ('blob', x'00')");
  EXPECT_EQ(settings.get<std::string>("real"), std::nullopt);
  EXPECT_EQ(settings.get<bool>("blob"), std::nullopt);
}

TEST_F(Settings, AreTheOwnersAlone) {
  UserDefaults settings(file);
  settings.set("k", true);
  EXPECT_EQ(fs::status(file.parent_path()).permissions(), fs::perms(0700));
  for (const char* suffix : {"", "-wal", "-shm"})
    EXPECT_EQ(fs::status(file.string() + suffix).permissions(), fs::perms(0600)) << suffix;
}

TEST_F(Settings, SurviveAKillRightBehindTheWrite) {
  for (const auto& launch : {"1"s, "2"s, "3"s}) {
    const pid_t child = fork();
    if (child == 0) {
      UserDefaults settings(file);
      settings.set("launch", launch);
      kill(getpid(), SIGKILL);
    }
    waitpid(child, nullptr, 0);
    EXPECT_EQ(UserDefaults(file).get<std::string>("launch"), launch);
  }
}

TEST_F(Settings, AreSharedByProcessesAndThreads) {
  constexpr int writes = 200;
  const auto write = [](UserDefaults& settings, const std::string& name) {
    for (int i = 0; i < writes; ++i) settings.set(name + std::to_string(i), true);
  };
  const pid_t child = fork();
  UserDefaults settings(file);
  if (child == 0) {
    write(settings, "child");
    _exit(0);
  }
  std::jthread other([&] { write(settings, "a"); });
  write(settings, "b");
  other.join();
  waitpid(child, nullptr, 0);
  for (const auto& name : {"a"s, "b"s, "child"s}) {
    for (int i = 0; i < writes; ++i)
      EXPECT_EQ(settings.get<bool>(name + std::to_string(i)), true) << name << i;
  }
}

TEST_F(Settings, SetADamagedFileAside) {
  const std::tuple<const char*, int, std::string> rows[] = {
      {"no database at all", 0, std::string(8192, 'x')},
      {"a header that means nothing", 0, "SQLite format 4"},
      {"pages that mean nothing", 100, std::string(8000, '\xAA')}};
  for (const auto& [what, offset, bytes] : rows) {
    SCOPED_TRACE(what);
    fs::remove_all(file.parent_path());
    UserDefaults(file).set("k", "old"s);
    std::fstream(file, std::ios::in | std::ios::out).seekp(offset) << bytes;
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

  UserDefaults full(file);
  full.set("k", "before"s);
  execute("CREATE TRIGGER full BEFORE UPDATE ON settings BEGIN SELECT RAISE(ABORT, 'full'); END");
  full.set("k", "after"s);
  EXPECT_EQ(full.get<std::string>("k"), "after") << "as the process sees it";
  EXPECT_EQ(UserDefaults(file).get<std::string>("k"), "before");
}

TEST(StorageKeys, StandUnderTheirKeysInTheApplicationsOwnFile) {
  Bundle::setMain({.identifier = "com.example/../app", .infoDictionary = {}});
  EXPECT_EQ(StorageKeys::apiKey.get(), std::nullopt);
  EXPECT_TRUE(StorageKeys::firstLaunch.get());
  StorageKeys::apiKey.set("qk");
  StorageKeys::anonymousId.set("");
  StorageKeys::firstLaunch.set(false);
  const fs::path folder = fs::path(std::getenv("XDG_DATA_HOME")) / "quorva";
  UserDefaults other(folder / "com.example%2f..%2fapp.sqlite");
  EXPECT_EQ(other.get<std::string>("QV_API_KEY"), "qk");
  EXPECT_EQ(other.get<std::string>("QV_ANONYMOUS_ID"), "");
  EXPECT_EQ(other.get<bool>("QV_FIRST_TIME"), false);
}

}  // namespace
}  // namespace quorva::platform
