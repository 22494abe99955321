// Log lines, error texts, and what is read of the machine.

#include <gtest/gtest.h>
#include <libintl.h>
#include <sys/utsname.h>
#include <syslog.h>

#include <clocale>
#include <cstdarg>
#include <cstring>
#include <regex>

#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/QuorvaError.h"
#include "QuorvaSDK/UIDevice+Extensions.h"
#include "platform/Bundle.h"
#include "platform/SystemReadings.h"
#include "platform/UnifiedLog.h"
#include "tests/Support.h"

namespace {

// What the system's own functions are told to answer, and what they were handed.
std::optional<std::string> machineName;
std::vector<std::pair<int, std::string>> systemLog;

}  // namespace

// In place of the C library's.
extern "C" int uname(utsname* system) noexcept {
  *system = {};
  if (!machineName) return -1;
  machineName->copy(system->machine, sizeof system->machine - 1);
  return 0;
}

extern "C" void syslog(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char text[512];
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  systemLog.emplace_back(priority, text);
}

namespace quorva {
namespace {

using platform::UserInterfaceIdiom;

TEST(Logger, WritesOneLinePerEventInItsFormat) {
  QVLogger::isConsoleEnabled = true;
  test::Console console;
  QVLogger::log(LogLevel::success, "SDK ping successful", "QuorvaSDK/QVNetworkManager",
                "devicePing()", 146);
  QVLogger::log(LogLevel::debug, "", "whole", "f()", -1);
  QVLogger::log(LogLevel::info, "100%s\n", "a/b/", "f()", 1);
  QVLogger::log(LogLevel::warning, "m", "initialize(config:)");
  const int line = __LINE__ - 1;
  QVLogger::log(LogLevel::error, "m", "x", "f()", 1);
  const std::string stamp = R"(\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\] )";
  const std::regex expected(
      stamp + R"(\[✅ SUCCESS\] \[QVNetworkManager:146\] devicePing\(\): SDK ping successful\n)" +
      stamp + R"(\[🔍 DEBUG\] \[whole:-1\] f\(\): \n)" + stamp +
      R"(\[ℹ️ INFO\] \[:1\] f\(\): 100%s\n\n)" + stamp +
      R"(\[⚠️ WARNING\] \[diagnostics_test:)" + std::to_string(line) +
      R"(\] initialize\(config:\): m\n)" + stamp + R"(\[❌ ERROR\] \[x:1\] f\(\): m\n)");
  EXPECT_TRUE(std::regex_match(console.text(), expected)) << console.text();
  EXPECT_TRUE(systemLog.empty());
}

TEST(Logger, SystemLogHasItsOwnSwitchAndTheHostsMask) {
  test::Console console;
  QVLogger::log(LogLevel::error, "silent", "f()");
  QVLogger::isSystemLogEnabled = true;
  const int before = setlogmask(LOG_UPTO(LOG_INFO));
  for (const auto level :
       {LogLevel::debug, LogLevel::info, LogLevel::success, LogLevel::warning, LogLevel::error}) {
    QVLogger::log(level, "m%d", "file", "f()", 1);
  }
  setlogmask(before);
  std::vector<int> priorities;
  for (const auto& [priority, text] : systemLog) {
    priorities.push_back(LOG_PRI(priority));
    EXPECT_TRUE(text.starts_with("example.quorva.sdk: QuorvaSDK: [2")) << text;
    EXPECT_TRUE(text.ends_with("] [file:1] f(): m%d")) << text;
  }
  EXPECT_EQ(priorities, (std::vector{LOG_INFO, LOG_INFO, LOG_ERR, LOG_ERR}))
      << "the mask drops debug";
  EXPECT_EQ(console.text(), "");
}

TEST(QuorvaError, DescribesEachCase) {
  using enum QuorvaError::Case;
  const std::pair<QuorvaError, std::string_view> rows[] = {
      {QuorvaError::missing({"destinationURL", "domain"}),
       "Required Keys are missing - destinationURL, domain"},
      {QuorvaError::missing({}), "Required Keys are missing - "},
      {QuorvaError::missing({"", "b"}), "Required Keys are missing - , b"},
      {QuorvaError::network(platform::ForeignError{""}), "Network error: "},
      {QuorvaError::network(URLError(URLError::Code::timedOut)),
       "Network error: The request timed out."},
      {QuorvaError::server(503), "Server error with status code: 503"},
      {QuorvaError::server(-1), "Server error with status code: -1"},
      {QuorvaError(badRequest), "The request was malformed or invalid."},
      {QuorvaError(duplicatePath), "Selected Path already exist!"},
      {QuorvaError(invalidAPIKey), "Failed to initialize Quorva with a valid API key"},
      {QuorvaError(invalidURL), "Invalid URL configuration"},
      {QuorvaError(invalidResponse), "Invalid response from server"},
      {QuorvaError(notInitialized), "SDK has not been initialized"},
  };
  for (const auto& [error, text] : rows) EXPECT_EQ(Error(error).localizedDescription(), text);
}

TEST(QuorvaError, IsTranslatedByTheApplicationsCatalogue) {
  const test::TemporaryDirectory directory;
  const auto catalogue = directory.path() / "xx" / "LC_MESSAGES" / "app.mo";
  // A catalogue with one entry, as msgfmt lays it out: header, one key, one translation.
  const std::string key = "SDK has not been initialized";
  const std::string translation = "Le SDK n'est pas initialisé";
  const auto number = [](std::size_t value) {
    const auto word = static_cast<std::uint32_t>(value);
    return std::string(reinterpret_cast<const char*>(&word), sizeof word);
  };
  std::string file;
  for (const std::size_t word :
       {std::size_t{0x950412de}, std::size_t{0}, std::size_t{1}, std::size_t{28}, std::size_t{36},
        std::size_t{0}, std::size_t{44}, key.size(), std::size_t{44}, translation.size(),
        44 + key.size() + 1}) {
    file += number(word);
  }
  test::writeFile(catalogue, file + key + '\0' + translation + '\0');

  setenv("LANGUAGE", "xx", 1);
  ASSERT_TRUE(std::setlocale(LC_ALL, "C.UTF-8"));
  const Error error = QuorvaError(QuorvaError::notInitialized);
  bindtextdomain("app", directory.path().c_str());
  textdomain("app");
  EXPECT_EQ(error.localizedDescription(), translation) << "looked up when asked for";
}

TEST(Device, ModelIdentifierIsTheKernelsWordIfItIsText) {
  machineName = "iPhone15,2";
  EXPECT_EQ(modelIdentifier(), "iPhone15,2");
  machineName = "caf\xE9";
  EXPECT_EQ(modelIdentifier(), "N/A");
  EXPECT_EQ(platform::readKernel().machine, "") << "nor does anything else send what is no text";
  machineName = std::nullopt;
  EXPECT_EQ(modelIdentifier(), "");
}

TEST(Device, PlatformNameFollowsTheIdiom) {
  const std::pair<int, std::string_view> rows[] = {
      {-1, "N/A"},    {0, "iOS"},   {1, "iPadOS"},   {2, "tvOS"},    {3, "carPlayOS"},
      {4, "Unknown"}, {5, "macOS"}, {6, "visionOS"}, {7, "Unknown"}, {-2, "Unknown"}};
  for (const auto& [idiom, name] : rows)
    EXPECT_EQ(platformName(static_cast<UserInterfaceIdiom>(idiom)), name) << idiom;
}

TEST(SystemReadings, TakeWhatTheFilesTellAndNothingElse) {
  const test::TemporaryDirectory root;
  const auto write = [&](const char* file, const std::string& text) {
    test::writeFile(root.path() / file, text);
  };
  EXPECT_EQ(platform::readIdiom(root.path()), std::nullopt);
  EXPECT_EQ(platform::readDistributionVersion(root.path()), std::nullopt);
  EXPECT_EQ(platform::readProductName(root.path()), std::nullopt);
  EXPECT_FALSE(platform::readDisplay(root.path()));

  const std::pair<const char*, std::optional<UserInterfaceIdiom>> chassis[] = {
      {"30\n", UserInterfaceIdiom::pad},
      {"11\n", UserInterfaceIdiom::phone},
      {"3\n", std::nullopt},
      {"x", std::nullopt}};
  for (const auto& [type, idiom] : chassis) {
    write("sys/class/dmi/id/chassis_type", type);
    EXPECT_EQ(platform::readIdiom(root.path()), idiom) << type;
  }
  write("etc/os-release", "PRETTY_NAME=\"X VERSION_ID=9\"\nVERSION_ID=\"12.5\"\n");
  EXPECT_EQ(platform::readDistributionVersion(root.path()), "12.5");
  write("sys/class/dmi/id/product_name", "  Kiosk 7 \n");
  EXPECT_EQ(platform::readProductName(root.path()), "Kiosk 7");
  write("sys/class/dmi/id/product_name", "Caf\xE9\n");
  EXPECT_EQ(platform::readProductName(root.path()), std::nullopt);

  write("sys/class/drm/card0-HDMI-A-1/status", "disconnected\n");
  write("sys/class/drm/card0-HDMI-A-1/modes", "640x480\n");
  write("sys/class/drm/card0-eDP-1/status", "connected\n");
  write("sys/class/drm/card0-eDP-1/modes", "1920x1080\n1024x768\n");
  EXPECT_EQ(platform::readDisplay(root.path()).value().width, 1920);
  EXPECT_EQ(platform::readDisplay(root.path()).value().height, 1080);
}

TEST(SystemReadings, LanguagesComeFromTheFirstVariableThatIsSet) {
  struct Row {
    const char* language;
    const char* all;
    const char* lang;
    std::vector<std::string> tags;
  };
  const Row rows[] = {
      {"", "", "de_AT.UTF-8", {"de-AT"}},
      {"sr_RS@latin:fr:C", "en_US", "de", {"sr-RS", "fr"}},
      {"", "pt_BR", "de", {"pt-BR"}},
      {"", "", "C.UTF-8", {}},
      {"", "POSIX", "de", {}},
      {"", "", "\xFF", {}},
      {"", "", "", {}},
  };
  unsetenv("LC_MESSAGES");
  for (const auto& row : rows) {
    setenv("LANGUAGE", row.language, 1);
    setenv("LC_ALL", row.all, 1);
    setenv("LANG", row.lang, 1);
    EXPECT_EQ(platform::preferredLanguages(), row.tags)
        << row.language << " " << row.all << " " << row.lang;
  }
}

TEST(SystemReadings, TimeZoneComesFromTheVariableElseTheSystem) {
  const test::TemporaryDirectory root;
  const std::pair<const char*, std::string_view> rows[] = {
      {"Europe/Berlin", "Europe/Berlin"},
      {":America/New_York", "America/New_York"},
      {":/usr/share/zoneinfo/Asia/Tokyo", "Asia/Tokyo"},
      {"UTC0", "UTC0"},
      {"", "GMT"}};
  for (const auto& [variable, zone] : rows) {
    setenv("TZ", variable, 1);
    EXPECT_EQ(platform::timeZoneIdentifier(root.path()), zone) << variable;
  }
  unsetenv("TZ");
  EXPECT_EQ(platform::timeZoneIdentifier(root.path()), "GMT");
  test::writeFile(root.path() / "etc/timezone", "Europe/Vienna\n");
  EXPECT_EQ(platform::timeZoneIdentifier(root.path()), "Europe/Vienna");
  std::filesystem::create_symlink("../usr/share/zoneinfo/Europe/Zurich",
                                  root.path() / "etc/localtime");
  EXPECT_EQ(platform::timeZoneIdentifier(root.path()), "Europe/Zurich");
}

}  // namespace
}  // namespace quorva
