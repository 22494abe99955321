// An HTTP server's threads, from construction to destruction.
//
// Throws std::runtime_error with one readable line if it can't listen.

#pragma once

#include <httplib.h>

#include <cstdint>
#include <future>
#include <memory>

namespace localservice {

/// Serves on 127.0.0.1, each connection in a thread of its own. Its end waits for the answers to
/// the requests that have come, though not long for those who don't take them.
class Listener {
 public:
  /// Listens on `port`, or on any that is free if that is 0. Closes a connection after so many
  /// requests.
  Listener(std::unique_ptr<httplib::Server> server, std::uint16_t port,
           std::size_t requestsPerConnection);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  [[nodiscard]] std::uint16_t port() const { return port_; }

 private:
  const std::unique_ptr<httplib::Server> server_;
  std::uint16_t port_ = 0;
  std::future<void> ended_;
};

/// Breaks the connection to `port` that comes from `peerPort`, as a network does that fails.
void reset(int port, int peerPort);

}  // namespace localservice
