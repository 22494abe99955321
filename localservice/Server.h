// The service on this machine: HTTPS for the library, plain HTTP for browsers that open links.
// Writes a line about each request to the standard error, never with an API key.

#pragma once

#include <cstdint>
#include <functional>

#include "localservice/Certificates.h"
#include "localservice/Service.h"

namespace localservice {

/// 0 stands for any that is free.
struct Ports {
  std::uint16_t https = 0;
  std::uint16_t http = 0;
};

/// Listens on 127.0.0.1, with threads of its own, while `meanwhile` runs, which is given the ports.
/// Then it stops, once the requests that have come are answered. Throws std::runtime_error with one
/// readable line if it can't listen.
void serve(const Service& service, const Identity& identity, Ports wanted,
           const std::function<void(Ports bound)>& meanwhile);

}  // namespace localservice
