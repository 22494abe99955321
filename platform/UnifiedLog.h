// The system's log.

#pragma once

#include <string>
#include <string_view>

namespace quorva::platform {

/// An entry's type, which decides whether the system keeps it.
enum class LogType { debug, info, error };

/// Writes to syslog(3). Any thread.
class UnifiedLog {
 public:
  /// `subsystem` is the application, in reverse-DNS; `category` the part of it that speaks.
  UnifiedLog(std::string subsystem, std::string category);

  /// Whether the process keeps entries of this type (its log mask).
  [[nodiscard]] bool isEnabled(LogType type) const;

  /// One entry. The host's own `openlog` settings hold: the subsystem and the category stand in the
  /// text.
  void log(LogType type, std::string_view line) const;

 private:
  std::string source_;
};

}  // namespace quorva::platform
