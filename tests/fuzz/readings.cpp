// What the environment and the system's files tell, whatever is in them.

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/SystemReadings.h"
#include "platform/Text.h"
#include "tests/fuzz/Fuzz.h"

using namespace quorva::platform;

namespace {

void checkReadable(const std::string& text) {
  check(!text.empty() && isValidUTF8(text) && trimmed(text) == text);
}

// A system of which every file has the same content.
const std::filesystem::path& rootWith(std::string_view content) {
  static const std::filesystem::path root = [] {
    std::string name = std::filesystem::temp_directory_path() / "readings.XXXXXX";
    std::filesystem::path made = mkdtemp(name.data());
    std::filesystem::create_directories(made / "content" / "a");
    for (const char* folder : {"etc", "sys/class/dmi/id", "sys/class/drm/a"})
      std::filesystem::create_directories(made / folder);
    for (const char* file : {"etc/os-release", "etc/timezone", "sys/class/dmi/id/product_name",
                             "sys/class/dmi/id/chassis_type", "sys/class/drm/a/modes"})
      std::filesystem::create_symlink(made / "content" / "file", made / file);
    std::ofstream(made / "sys/class/drm/a/status") << "connected\n";
    return made;
  }();
  std::ofstream(root / "content" / "file", std::ios::binary) << content;
  return root;
}

}  // namespace

void fuzz(std::string_view text) {
  const std::string value(text.substr(0, text.find('\0')));
  setenv("LANGUAGE", value.c_str(), 1);
  for (const auto& tag : preferredLanguages()) {
    check(isValidUTF8(tag) && tag.find_first_of("_.@:") == tag.npos && tag != "C" && !tag.empty());
  }
  setenv("TZ", value.c_str(), 1);
  checkReadable(timeZoneIdentifier());

  unsetenv("TZ");
  const auto& root = rootWith(text);
  checkReadable(timeZoneIdentifier(root));
  for (const auto& reading : {readDistributionVersion(root), readProductName(root)})
    if (reading) checkReadable(*reading);
  if (const auto size = readDisplay(root)) check(size->width == size->width);
  static_cast<void>(readIdiom(root));
}
