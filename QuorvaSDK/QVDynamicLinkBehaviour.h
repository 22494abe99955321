// Where a short link opens when it is tapped on a phone.

#pragma once

#include <array>
#include <cstdint>

#include "PlatformTypes.h"

namespace quorva {

/// Travels to the service as its raw value; `rawValue`, `fromRawValue` and `allCases` work with it.
enum class QVDynamicLinkBehaviour : std::int64_t {
  browser = 1,
  app = 2,
};

}  // namespace quorva

template <>
inline constexpr std::array quorva::platform::allCases<quorva::QVDynamicLinkBehaviour>{
    quorva::QVDynamicLinkBehaviour::browser, quorva::QVDynamicLinkBehaviour::app};
