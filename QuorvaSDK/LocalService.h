// For development and tests: the library, unchanged, against a service on this machine.

#pragma once

#include <cstdint>
#include <filesystem>

#include "PlatformTypes.h"

namespace quorva {

/// Has requests that start from now on go to `port` on 127.0.0.1, and has the certificate authority
/// in the PEM file `certificateAuthority` trusted for them alone: as an entry in a device's hosts
/// file and trust store would. Any thread. Not for what you ship.
QUORVA_EXPORT void useLocalService(std::uint16_t port, std::filesystem::path certificateAuthority);

}  // namespace quorva
