#include "platform/UnifiedLog.h"

#include <syslog.h>

namespace quorva::platform {
namespace {

int priority(LogType type) {
  switch (type) {
    case LogType::debug:
      return LOG_DEBUG;
    case LogType::info:
      return LOG_INFO;
    case LogType::error:
      break;
  }
  return LOG_ERR;
}

}  // namespace

UnifiedLog::UnifiedLog(std::string subsystem, std::string category)
    : source_(std::move(subsystem) + ": " + std::move(category) + ": ") {}

bool UnifiedLog::isEnabled(LogType type) const {
  return setlogmask(0) & LOG_MASK(priority(type));
}

void UnifiedLog::log(LogType type, std::string_view line) const {
  syslog(LOG_USER | priority(type), "%s", (source_ + std::string(line)).c_str());
}

}  // namespace quorva::platform
