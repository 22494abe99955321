#include "QuorvaSDK/UIDevice+Extensions.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <utility>

#include "platform/Bundle.h"
#include "platform/SystemReadings.h"
#include "platform/Text.h"

namespace quorva {
namespace {

using platform::Bundle;
using platform::Device;
using platform::GeneralExecutor;
using platform::JSONValue;
using platform::Size;
using platform::Task;
using platform::UserInterfaceIdiom;

constexpr std::array<std::pair<UserInterfaceIdiom, std::string_view>, 7> platformNames{{
    {UserInterfaceIdiom::unspecified, "N/A"},
    {UserInterfaceIdiom::phone, "iOS"},
    {UserInterfaceIdiom::pad, "iPadOS"},
    {UserInterfaceIdiom::tv, "tvOS"},
    {UserInterfaceIdiom::carPlay, "carPlayOS"},
    {UserInterfaceIdiom::mac, "macOS"},
    {UserInterfaceIdiom::vision, "visionOS"},
}};

std::string appVersion() {
  const Bundle bundle = Bundle::main();
  const auto version = bundle.infoDictionary.find("CFBundleShortVersionString");
  if (version == bundle.infoDictionary.end()) return {};
  const auto* text = std::get_if<std::string>(&version->second);
  return text ? *text : std::string();
}

}  // namespace

std::string modelIdentifier() {
  utsname system{};
  uname(&system);
  return platform::isValidUTF8(system.machine) ? system.machine : "N/A";
}

std::string_view platformName(UserInterfaceIdiom idiom) {
  const auto row =
      std::ranges::find(platformNames, idiom, &decltype(platformNames)::value_type::first);
  return row == platformNames.end() ? "Unknown" : row->second;
}

Task<JSONValue::Object, GeneralExecutor> deviceDescription() {
  const UserInterfaceIdiom os = co_await onMainThread(&Device::userInterfaceIdiom);
  const std::string systemVersion = co_await onMainThread(&Device::systemVersion);
  const std::string model = co_await onMainThread(&modelIdentifier);
  const UserInterfaceIdiom idiom = co_await onMainThread(&Device::userInterfaceIdiom);
  const Size forWidth = co_await onMainThread(&Device::screen);
  const Size forHeight = co_await onMainThread(&Device::screen);
  const std::vector<std::string> languages = platform::preferredLanguages();
  JSONValue::Object description{
      {"os", platformName(os)},
      {"os_version", systemVersion},
      {"device_manufacturer", "Apple"},
      {"device_model", model},
      {"device_brand", "Apple"},
      {"platform", platformName(idiom)},
      {"screen_w", forWidth.width},
      {"screen_h", forHeight.height},
      {"locale_lang", languages.empty() ? "N/A" : languages.front()},
      {"locale_timezone", platform::timeZoneIdentifier()},
      {"app_version", appVersion()},
      {"app_id", Bundle::main().identifier.value_or("")},
      {"sdk_version", sdkVersion},
  };
  co_return description;
}

}  // namespace quorva
