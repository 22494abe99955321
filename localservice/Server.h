// HTTPS on this machine: hands each request to the service, and prints a line about it to the
// standard output, never with an API key.

#pragma once

#include <cstdint>
#include <functional>

#include "localservice/Certificates.h"
#include "localservice/Service.h"

namespace localservice {

/// Listens on 127.0.0.1, on any free port if `port` is 0, with threads of its own while `meanwhile`
/// runs, which is given the port. Then it stops, once the requests under way are answered. Throws
/// std::runtime_error with one readable line if it can't listen.
void serve(const Service& service, const Identity& identity, std::uint16_t port,
           const std::function<void(int port)>& meanwhile);

}  // namespace localservice
