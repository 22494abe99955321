// The settings store: what it keeps, and what it survives.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <utility>

#include "QuorvaSDK/StorageKeys.h"
#include "platform/Bundle.h"
#include "platform/UserDefaults.h"
#include "tests/Process.h"
#include "tests/ServiceFixture.h"

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

TEST_F(Settings, LeaveLaterVersionsTheirTable) {
  for (const auto& [change, isKept] :
       {std::pair("ADD COLUMN written REAL", true), {"RENAME COLUMN value TO content", false}}) {
    SCOPED_TRACE(change);
    fs::remove_all(file.parent_path());
    UserDefaults(file).set("k", true);
    execute(("ALTER TABLE settings "s + change).c_str());
    UserDefaults settings(file);
    EXPECT_EQ(settings.get<bool>("k").has_value(), isKept);
    settings.set("k", false);
    EXPECT_EQ(settings.get<bool>("k"), false);
    EXPECT_EQ(UserDefaults(file).get<bool>("k").has_value(), isKept);
    EXPECT_FALSE(fs::exists(file.string() + ".damaged"));
  }
}

TEST_F(Settings, WaitTwoSecondsForOthersAndHardlyAgain) {
  // A process that has the file, and one that has the folder, and neither goes on.
  test::Process writing([&] {
    UserDefaults(file).set("k", "old"s);
    sqlite3* database = nullptr;
    sqlite3_open(file.c_str(), &database);
    sqlite3_exec(database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    return raise(SIGSTOP) == 0;
  });
  writing.waitUntilStopped();
  test::Process opening([&] {
    flock(open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY), LOCK_EX);
    return raise(SIGSTOP) == 0;
  });
  opening.waitUntilStopped();
  const auto seconds = [](const auto& access) {
    const auto begun = std::chrono::steady_clock::now();
    access();
    return test::secondsSince(begun);
  };
  UserDefaults settings(file);
  EXPECT_LT(seconds([&] { EXPECT_EQ(settings.get<std::string>("k"), "old"); }), 3);
  opening.signal(SIGKILL);
  EXPECT_LT(seconds([&] { EXPECT_EQ(settings.get<std::string>("k"), "old"); }), 1);
  EXPECT_LT(seconds([&] { settings.set("k", "new"s); }), 3);
  for (const auto& key : {"a", "b", "c"}) {
    EXPECT_LT(seconds([&] { settings.set(key, true); }), 1);
    EXPECT_LT(seconds([&] { EXPECT_EQ(settings.get<std::string>("k"), "new"); }), 1);
  }
  writing.signal(SIGKILL);
  for (auto* process : {&opening, &writing}) process->end();
  settings.set("d", true);
  UserDefaults other(file);
  EXPECT_EQ(other.get<std::string>("k"), "new") << "what had to wait went with the next";
  for (const auto& key : {"a", "b", "c", "d"}) EXPECT_EQ(other.get<bool>(key), true) << key;
}

// A process that has no home from the beginning.
struct WithoutAHome {
  WithoutAHome() {
    for (const char* variable : {"XDG_DATA_HOME", "HOME"}) setenv(variable, "relative", 1);
    // A user that the system doesn't know, with all of root's rights.
    isSo = geteuid() == 0 && setresuid(54321, 0, 0) == 0;
  }
  bool isSo;
};

class Initialization : WithoutAHome, public test::ServiceFixture {
 protected:
  using WithoutAHome::isSo;
};

TEST_F(Initialization, NeedsNoHome) {
  if (!isSo) GTEST_SKIP() << "only root can become a user without a home";
  Quorva::initialize(QVConfiguration("qk", false, nullptr));
  EXPECT_TRUE(test::drainUntil([] { return StorageKeys::anonymousId.get() == "u-1"; }));
  const auto link =
      test::outcome(Quorva::createDynamicLink(QVDynamicLinkBuilder("https://d", "go")));
  EXPECT_TRUE(link) << "with the key and the identifier of this process";
  for (const char* place : {"relative", ".local"}) EXPECT_FALSE(fs::exists(place)) << place;
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
