// Log lines, error texts, and what is read of the machine.

#include <gtest/gtest.h>
#include <libintl.h>
#include <sys/utsname.h>
#include <syslog.h>

#include <cstdarg>
#include <regex>

#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/QuorvaError.h"
#include "QuorvaSDK/UIDevice+Extensions.h"
#include "platform/SystemReadings.h"
#include "tests/Support.h"

namespace {

// What the system's own functions are told to answer, and what they were handed.
std::string machineName;
std::string systemLog;

}  // namespace

// In place of the C library's.
extern "C" int uname(utsname* system) noexcept {
  machineName.copy(system->machine, sizeof system->machine - 1);
  return machineName.empty() ? -1 : 0;
}

static void record(int priority, const char* format, std::va_list arguments) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, arguments);
  systemLog += std::to_string(LOG_PRI(priority)) + " " + text + "\n";
}

extern "C" void syslog(int priority, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}

// As release builds call it.
extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}

namespace quorva {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using platform::UserInterfaceIdiom;

// `text` with @ in place of its times.
std::string timeless(const std::string& text) {
  return std::regex_replace(text, std::regex(R"(\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\])"), "@");
}

TEST(Logger, WritesOneLinePerEventToWhatIsSwitchedOn) {
  test::Console console;
  QVLogger::log(LogLevel::error, "silent", "f()");
  QVLogger::isConsoleEnabled = true;
  QVLogger::log(LogLevel::success, "pinged", "QuorvaSDK/QVNetworkManager", "devicePing()", 146);
  QVLogger::log(LogLevel::debug, "100%s\n", "whole", "", -1);
  QVLogger::log(LogLevel::warning, "m", "initialize(config:)");
  const std::string line = std::to_string(__LINE__ - 1);
  QVLogger::isConsoleEnabled = false;
  QVLogger::isSystemLogEnabled = true;
  setlogmask(LOG_UPTO(LOG_INFO));  // drops debug
  for (const int level : {0, 1, 2, 3, 4}) QVLogger::log(LogLevel(level), "m%d", "file", "f()", 1);
  EXPECT_EQ(timeless(systemLog),
            "6 example.quorva.sdk: QuorvaSDK: @ [ℹ️ INFO] [file:1] f(): m%d\n"
            "6 example.quorva.sdk: QuorvaSDK: @ [✅ SUCCESS] [file:1] f(): m%d\n"
            "3 example.quorva.sdk: QuorvaSDK: @ [⚠️ WARNING] [file:1] f(): m%d\n"
            "3 example.quorva.sdk: QuorvaSDK: @ [❌ ERROR] [file:1] f(): m%d\n");
  EXPECT_EQ(timeless(console.text()),
            "@ [✅ SUCCESS] [QVNetworkManager:146] devicePing(): pinged\n"
            "@ [🔍 DEBUG] [whole:-1] : 100%s\n\n"
            "@ [⚠️ WARNING] [diagnostics_test:" +
                line + "] initialize(config:): m\n");
}

TEST(QuorvaError, DescribesEachCase) {
  using enum QuorvaError::Case;
  const std::pair<QuorvaError, std::string_view> rows[] = {
      {QuorvaError::missing({"a", "b"}), "Required Keys are missing - a, b"},
      {QuorvaError::missing({}), "Required Keys are missing - "},
      {QuorvaError::network(platform::ForeignError{""}), "Network error: "},
      {QuorvaError::server(503), "Server error with status code: 503"},
      {QuorvaError::server(-1), "Server error with status code: -1"},
      {QuorvaError(badRequest), "The request was malformed or invalid."},
      {QuorvaError(duplicatePath), "Selected Path already exist!"},
      {QuorvaError(invalidAPIKey), "Failed to initialize Quorva with a valid API key"},
      {QuorvaError(invalidURL), "Invalid URL configuration"},
      {QuorvaError(invalidResponse), "Invalid response from server"},
      {QuorvaError(notInitialized), "SDK has not been initialized"}};
  for (const auto& [error, text] : rows) EXPECT_EQ(Error(error).localizedDescription(), text);
}

TEST(QuorvaError, IsTranslatedByTheApplicationsCatalogue) {
  const test::TemporaryDirectory directory;
  // As msgfmt lays it out: a header, one key and its translation, each of 28 bytes and a zero.
  const std::uint32_t header[] = {0x950412de, 0, 1, 28, 36, 0, 44, 28, 44, 28, 73};
  const auto texts = "SDK has not been initialized\0Le SDK n'est pas initialisé\0"s;
  test::writeFile(directory.path() / "xx/LC_MESSAGES/app.mo",
                  std::string(reinterpret_cast<const char*>(header), sizeof header) + texts);
  const Error error = QuorvaError(QuorvaError::notInitialized);
  setenv("LANGUAGE", "xx", 1);
  std::locale::global(std::locale("C.UTF-8"));
  bindtextdomain("app", directory.path().c_str());
  textdomain("app");
  EXPECT_EQ(error.localizedDescription(), "Le SDK n'est pas initialisé") << "asked for anew";
}

TEST(Device, ModelIdentifierIsTheKernelsWordIfItIsText) {
  EXPECT_EQ(modelIdentifier(), "") << "the kernel says nothing";
  machineName = "iPhone15,2";
  EXPECT_EQ(modelIdentifier(), "iPhone15,2");
  machineName = "caf\xE9";
  EXPECT_EQ(modelIdentifier(), "N/A");
  EXPECT_EQ(platform::readKernel().machine, "") << "nor does anything else send what is no text";
}

TEST(Device, PlatformNameFollowsTheIdiom) {
  const std::pair<int, std::string_view> rows[] = {{-1, "N/A"},  {0, "iOS"},       {1, "iPadOS"},
                                                   {2, "tvOS"},  {3, "carPlayOS"}, {4, "Unknown"},
                                                   {5, "macOS"}, {6, "visionOS"}};
  for (const auto& [idiom, name] : rows)
    EXPECT_EQ(platformName(static_cast<UserInterfaceIdiom>(idiom)), name) << idiom;
}

TEST(SystemReadings, TakeWhatTheFilesTellAndNothingElse) {
  const test::TemporaryDirectory root;
  const auto write = [&](auto file, auto text) { test::writeFile(root.path() / file, text); };
  EXPECT_FALSE(platform::readDisplay(root.path()));

  const std::pair<const char*, std::optional<UserInterfaceIdiom>> chassis[] = {
      {"30\n", UserInterfaceIdiom::pad}, {"11\n", UserInterfaceIdiom::phone}, {"3\n", {}}};
  for (const auto& [type, idiom] : chassis) {
    write("sys/class/dmi/id/chassis_type", type);
    EXPECT_EQ(platform::readIdiom(root.path()), idiom) << type;
  }
  write("etc/os-release", "PRETTY_NAME=\"X VERSION_ID=9\"\nVERSION_ID=\"12.5\"\n");
  EXPECT_EQ(platform::readDistributionVersion(root.path()), "12.5");
  write("sys/class/dmi/id/product_name", "  Kiosk 7 \n");
  EXPECT_EQ(platform::readProductName(root.path()), "Kiosk 7");

  write("sys/class/drm/card0-HDMI-A-1/status", "disconnected\n");
  write("sys/class/drm/card0-HDMI-A-1/modes", "640x480\n");
  write("sys/class/drm/card0-eDP-1/status", "connected\n");
  write("sys/class/drm/card0-eDP-1/modes", "1920x1080\n1024x768\n");
  EXPECT_EQ(platform::readDisplay(root.path()).value().width, 1920);
  EXPECT_EQ(platform::readDisplay(root.path()).value().height, 1080);
}

TEST(SystemReadings, LanguagesComeFromTheFirstVariableThatIsSet) {
  using Tags = std::vector<std::string>;
  const auto tags = [](const char* language, const char* all, const char* lang) {
    setenv("LANGUAGE", language, 1);
    setenv("LC_ALL", all, 1);
    setenv("LANG", lang, 1);
    return platform::preferredLanguages();
  };
  unsetenv("LC_MESSAGES");
  EXPECT_EQ(tags("sr_RS@latin:fr:C", "en_US", "de"), (Tags{"sr-RS", "fr"}));
  EXPECT_EQ(tags("", "pt_BR", "de"), Tags{"pt-BR"});
  EXPECT_EQ(tags("", "", "de_AT.UTF-8"), Tags{"de-AT"});
  for (const char* lang : {"C.UTF-8", "POSIX", "\xFF", ""})
    EXPECT_EQ(tags("", "", lang), Tags()) << lang;
}

TEST(SystemReadings, TimeZoneComesFromTheVariableElseTheSystem) {
  const test::TemporaryDirectory root;
  const auto zone = [&](const char* variable) {
    setenv("TZ", variable, 1);
    return platform::timeZoneIdentifier(root.path());
  };
  EXPECT_EQ(zone(":America/New_York"), "America/New_York");
  EXPECT_EQ(zone(":/usr/share/zoneinfo/Asia/Tokyo"), "Asia/Tokyo");
  EXPECT_EQ(zone("UTC0"), "UTC0");
  EXPECT_EQ(zone(""), "GMT");
  unsetenv("TZ");
  EXPECT_EQ(platform::timeZoneIdentifier(root.path()), "GMT");
  test::writeFile(root.path() / "etc/timezone", "Europe/Vienna\n");
  EXPECT_EQ(platform::timeZoneIdentifier(root.path()), "Europe/Vienna");
  fs::create_symlink("../usr/share/zoneinfo/Europe/Zurich", root.path() / "etc/localtime");
  EXPECT_EQ(platform::timeZoneIdentifier(root.path()), "Europe/Zurich");
}

}  // namespace
}  // namespace quorva
