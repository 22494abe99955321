// An HTTP server's threads, from construction to destruction.
//
// Throws std::runtime_error with one readable line if it can't listen.

#pragma once

#include <httplib.h>

#include <cstdint>
#include <future>
#include <memory>

namespace localservice {

/// Serves on 127.0.0.1, each connection in a thread of its own. Its end waits for the requests that
/// are under way.
class Listener {
 public:
  /// Listens on `port`, or on any that is free if that is 0.
  Listener(std::unique_ptr<httplib::Server> server, std::uint16_t port);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  [[nodiscard]] std::uint16_t port() const { return port_; }

 private:
  const std::unique_ptr<httplib::Server> server_;
  std::uint16_t port_ = 0;
  std::future<void> ended_;
};

/// Breaks the connections that come from `port`, as a network does that fails.
void reset(int port);

}  // namespace localservice
