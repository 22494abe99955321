// What this system's files and environment tell about the machine and the person in front of it.
//
// Any thread, as long as nobody changes the environment meanwhile. `root` is where the system's
// files are found, "/" outside tests. A reading is absent where the system doesn't tell; text that
// is no UTF-8 tells nothing.

#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/Device.h"

namespace quorva::platform {

/// The idiom that the machine's chassis type stands for. Desktops and laptops have none.
[[nodiscard]] std::optional<UserInterfaceIdiom> readIdiom(const std::filesystem::path& root);

/// os-release's VERSION_ID.
[[nodiscard]] std::optional<std::string> readDistributionVersion(const std::filesystem::path& root);

/// The name that the machine's maker gave it.
[[nodiscard]] std::optional<std::string> readProductName(const std::filesystem::path& root);

/// The first connected display's preferred mode.
[[nodiscard]] std::optional<Size> readDisplay(const std::filesystem::path& root);

/// What uname(2) says.
struct Kernel {
  std::string nodename;
  std::string release;
  std::string machine;
};
[[nodiscard]] Kernel readKernel();

/// The person's languages as tags ("de-AT"), most preferred first: LANGUAGE, else LC_ALL,
/// LC_MESSAGES, LANG.
[[nodiscard]] std::vector<std::string> preferredLanguages();

/// The name of the time zone ("Europe/Berlin"): TZ, else /etc/localtime's target, /etc/timezone,
/// else "GMT".
[[nodiscard]] std::string timeZoneIdentifier(const std::filesystem::path& root = "/");

}  // namespace quorva::platform
