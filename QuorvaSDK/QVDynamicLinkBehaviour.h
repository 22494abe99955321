// Where a short link opens when it is tapped on a phone.

#pragma once

#include <array>
#include <cstdint>

#include "PlatformTypes.h"

namespace quorva {

/// Travels to the service as its raw value; `rawValue`, `fromRawValue` and `allCases` work with it.
enum class QVDynamicLinkBehaviour : std::int64_t {
  browser = 1,  ///< at its destination, in a browser
  app = 2,      ///< in the application
};

}  // namespace quorva

template <>
inline constexpr std::array quorva::platform::allCases<quorva::QVDynamicLinkBehaviour>{
    quorva::QVDynamicLinkBehaviour::browser, quorva::QVDynamicLinkBehaviour::app};
