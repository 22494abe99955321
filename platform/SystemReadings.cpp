#include "platform/SystemReadings.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <string_view>
#include <utility>

#include "platform/Text.h"

namespace quorva::platform {
namespace {

namespace fs = std::filesystem;

// `text` without white space around it, if that leaves a readable text.
std::optional<std::string> readable(std::string_view text) {
  std::string value = trimmed(text);
  return value.empty() || !isValidUTF8(value) ? std::nullopt : std::optional(std::move(value));
}

std::optional<std::string> firstLine(const fs::path& file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return readable(line);
}

const char* environment(const char* variable) {
  const char* value = std::getenv(variable);
  return value && isValidUTF8(value) ? value : nullptr;
}

// 1920x1080
std::optional<Size> displayMode(std::string_view mode) {
  Size size;
  const char* last = mode.data() + mode.size();
  const auto [x, error] = std::from_chars(mode.data(), last, size.width);
  const bool isMode = error == std::errc() && x != last && *x == 'x' &&
                      std::from_chars(x + 1, last, size.height).ec == std::errc();
  return isMode ? std::optional(size) : std::nullopt;
}

// "de_AT.UTF-8@euro" is de-AT. C and POSIX are no languages.
std::optional<std::string> languageTag(std::string_view locale) {
  std::string tag(locale.substr(0, locale.find_first_of(".@")));
  if (tag.empty() || tag == "C" || tag == "POSIX") return std::nullopt;
  std::ranges::replace(tag, '_', '-');
  return tag;
}

// What follows the zoneinfo folder in `path`; none where it isn't in there.
std::optional<std::string> zoneName(std::string_view path) {
  constexpr std::string_view folder = "zoneinfo/";
  const auto at = path.find(folder);
  return at == path.npos ? std::nullopt : readable(path.substr(at + folder.size()));
}

}  // namespace

std::optional<UserInterfaceIdiom> readIdiom(const fs::path& root) {
  const auto type = firstLine(root / "sys/class/dmi/id/chassis_type");
  if (type == "11") return UserInterfaceIdiom::phone;  // SMBIOS: hand held
  if (type == "30") return UserInterfaceIdiom::pad;    // SMBIOS: tablet
  return std::nullopt;
}

std::optional<std::string> readDistributionVersion(const fs::path& root) {
  constexpr std::string_view key = "VERSION_ID=";
  std::ifstream release(root / "etc/os-release");
  for (std::string line; std::getline(release, line);) {
    if (!line.starts_with(key)) continue;
    std::erase_if(line, [](char c) { return c == '"' || c == '\''; });
    return readable(std::string_view(line).substr(key.size()));
  }
  return std::nullopt;
}

std::optional<std::string> readProductName(const fs::path& root) {
  return firstLine(root / "sys/class/dmi/id/product_name");
}

std::optional<Size> readDisplay(const fs::path& root) {
  std::error_code unreadable;
  for (const auto& output : fs::directory_iterator(root / "sys/class/drm", unreadable)) {
    if (firstLine(output.path() / "status") != "connected") continue;
    if (const auto mode = firstLine(output.path() / "modes")) return displayMode(*mode);
  }
  return std::nullopt;
}

Kernel readKernel() {
  utsname system{};
  uname(&system);
  const auto text = [](const char* field) { return readable(field).value_or(""); };
  return {text(system.nodename), text(system.release), text(system.machine)};
}

std::vector<std::string> preferredLanguages() {
  constexpr std::array variables{"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
  const auto isSet = [](const char* variable) {
    return environment(variable) && *environment(variable);
  };
  const auto variable = std::ranges::find_if(variables, isSet);
  std::vector<std::string> tags;
  std::string_view rest = variable == variables.end() ? "" : environment(*variable);
  while (!rest.empty()) {
    const auto end = std::min(rest.find(':'), rest.size());
    if (auto tag = languageTag(rest.substr(0, end))) tags.push_back(std::move(*tag));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return tags;
}

std::string timeZoneIdentifier(const fs::path& root) {
  if (const char* variable = environment("TZ")) {
    std::string_view zone = variable;
    if (zone.starts_with(':')) zone.remove_prefix(1);
    return zoneName(zone).value_or(readable(zone).value_or("GMT"));
  }
  std::error_code unreadable;
  const auto localtime = fs::read_symlink(root / "etc/localtime", unreadable).string();
  if (auto zone = zoneName(localtime)) return *zone;
  return firstLine(root / "etc/timezone").value_or("GMT");
}

}  // namespace quorva::platform
