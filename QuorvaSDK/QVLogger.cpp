#include "QuorvaSDK/QVLogger.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <string>

#include "platform/Bundle.h"
#include "platform/Date.h"
#include "platform/UnifiedLog.h"

namespace quorva {
namespace {

using namespace std::string_view_literals;

struct Level {
  std::string_view label;
  platform::LogType type;
};

// In the order of LogLevel.
constexpr std::array levels{
    Level{"🔍 DEBUG", platform::LogType::debug},  Level{"ℹ️ INFO", platform::LogType::info},
    Level{"✅ SUCCESS", platform::LogType::info}, Level{"⚠️ WARNING", platform::LogType::error},
    Level{"❌ ERROR", platform::LogType::error},
};

const platform::UnifiedLog& unifiedLog() {
  static const auto& log = *new platform::UnifiedLog(
      platform::Bundle::main().identifier.value_or("example.quorva.sdk"), "QuorvaSDK");
  return log;
}

}  // namespace

std::atomic<bool> QVLogger::isConsoleEnabled = false;
std::atomic<bool> QVLogger::isSystemLogEnabled = false;

void QVLogger::log(LogLevel level, std::string_view message, std::string_view file,
                   std::string_view function, std::int64_t line) {
  if (!isConsoleEnabled && !isSystemLogEnabled) return;
  const auto& [label, type] = levels[static_cast<std::size_t>(level)];
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const std::string time = platform::iso8601(now);
  const std::string number = std::to_string(line);
  const std::string_view name = file.substr(file.rfind('/') + 1);
  std::string text;
  for (const std::string_view part :
       {"["sv, std::string_view(time), "] ["sv, label, "] ["sv, name, ":"sv,
        std::string_view(number), "] "sv, function, ": "sv, message}) {
    text += part;
  }
  text += '\n';  // with it one write, so that lines of two threads don't mix
  if (isConsoleEnabled) std::fwrite(text.data(), 1, text.size(), stdout);
  text.pop_back();
  if (isSystemLogEnabled && unifiedLog().isEnabled(type)) unifiedLog().log(type, text);
}

void QVLogger::log(LogLevel level, std::string_view message, const CallSite& site) {
  log(level, message, site.file.substr(0, site.file.rfind('.')), site.function, site.line);
}

}  // namespace quorva
