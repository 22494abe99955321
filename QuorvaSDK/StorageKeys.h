// The three settings that outlive the process.

#pragma once

#include <optional>
#include <string>

#include "platform/UserDefaults.h"

namespace quorva {

/// Each a view of the application's settings: reading asks the store, writing stores at once. Any
/// thread.
struct StorageKeys {
  /// The key of the last initialization whose key wasn't blank, untrimmed.
  static constexpr platform::AppStorage<std::optional<std::string>> apiKey{"QV_API_KEY"};
  /// What the service calls this installation. A reinstall is the only reset.
  static constexpr platform::AppStorage<std::optional<std::string>> anonymousId{"QV_ANONYMOUS_ID"};
  /// Whether the question for a link tapped before installation is still to be asked.
  static constexpr platform::AppStorage<bool> firstLaunch{"QV_FIRST_TIME", true};
};

}  // namespace quorva
