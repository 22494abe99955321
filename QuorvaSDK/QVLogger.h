// The library's only voice: one line per event, to standard output and the system's log, each
// behind a switch.
//
// Threads: any. Errors: none; a line that can't be written is lost.

#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

namespace quorva {

enum class LogLevel { debug, info, success, warning, error };

/// Where a line comes from: the operation's signature, as its caller gives it, and the place in the
/// source.
struct CallSite {
  // Implicit, so that the place is that of the call.
  CallSite(const char* signature, const char* path = __builtin_FILE(),
           int number = __builtin_LINE())
      : function(signature), file(path), line(number) {}

  std::string_view function;
  std::string_view file;
  int line;
};

class QVLogger {
 public:
  QVLogger() = delete;

  /// Both off until an initialization with debugging on.
  static std::atomic<bool> isConsoleEnabled;
  static std::atomic<bool> isSystemLogEnabled;

  /// Writes "[time] [level] [file:line] function: message". `file` is shown from behind its last
  /// "/".
  static void log(LogLevel level, std::string_view message, std::string_view file,
                  std::string_view function, std::int64_t line);

  /// As above, from `site`: `QVLogger::log(LogLevel::error, text, "initialize(config:)")`.
  static void log(LogLevel level, std::string_view message, const CallSite& site);
};

}  // namespace quorva
