// The application: what the host says of it, and what the system knows.

#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Export.h"

namespace quorva::platform {

/// A description of the application. A value; the one that the library uses is set with `setMain`.
struct QUORVA_EXPORT Bundle {
  /// Reverse-DNS, like "com.example.shop". Also tells applications' settings apart on disk, where
  /// the executable's name does so without one; so give it before the library is first used, and
  /// keep it.
  std::optional<std::string> identifier;

  /// Texts and numbers about the application. The library reads "CFBundleShortVersionString", a
  /// text: the version that people see, like "2.1".
  std::map<std::string, std::variant<std::string, double>> infoDictionary;

  /// The application's description. Any thread.
  [[nodiscard]] static Bundle main();

  /// Replaces the application's description. Any thread; before `Quorva::initialize`, so that the
  /// service hears of it.
  static void setMain(Bundle bundle);
};

/// @cond  The library's own, and not exported.

/// The file name of the running program.
[[nodiscard]] std::string executableName();

/// The application's translation of `key`, from its default gettext domain; `key` itself where
/// there is none.
[[nodiscard]] std::string localizedString(const char* key);

/// @endcond

}  // namespace quorva::platform
