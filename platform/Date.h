// Instants, and their form in log lines.

#pragma once

#include <chrono>
#include <string>

namespace quorva::platform {

/// An instant, UTC.
using Date = std::chrono::system_clock::time_point;

/// @cond  The library's own, and not exported.

/// ISO 8601 in UTC to whole seconds: 2025-03-14T09:26:53Z.
[[nodiscard]] std::string iso8601(std::chrono::sys_seconds instant);

/// @endcond

}  // namespace quorva::platform
