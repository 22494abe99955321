#include "platform/Date.h"

#include <array>
#include <cstdio>

namespace quorva::platform {

std::string iso8601(std::chrono::sys_seconds instant) {
  const auto midnight = std::chrono::floor<std::chrono::days>(instant);
  const std::chrono::year_month_day date(midnight);
  const std::chrono::hh_mm_ss time(instant - midnight);
  std::array<char, 48> text;
  const int length = std::snprintf(
      text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
      static_cast<int>(time.seconds().count()));
  return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace quorva::platform
