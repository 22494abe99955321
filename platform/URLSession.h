// HTTPS to servers: one client for the whole process, driven by one thread of its own.
//
// TLS 1.2 at least, certificates and host names verified, https only, also after redirects (at most
// 20: 301, 302 and 303 go on as GET, 307 and 308 as they were); HTTP/2 where offered; connections
// and in-memory cookies shared by all requests, a connection by one at a time; the proxies that the
// environment names. Every request has exactly one outcome: no reply is taken that is larger than
// 16 MiB, compressed or not, or whose headers are larger than 256 KiB. Nothing starts before the
// first request, and nothing is joined at exit.

#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/GeneralExecutor.h"
#include "platform/Task.h"
#include "platform/URL.h"

namespace quorva::platform {

/// A POST of `body` to `url`.
struct URLRequest {
  explicit URLRequest(URL address) : url(std::move(address)) {}

  URL url;
  std::vector<std::string> headers;  ///< "Name: value"
  std::string body;
  /// How long the server may be silent, connecting included; every byte that arrives starts it
  /// anew.
  std::chrono::milliseconds timeout{60'000};
};

/// What a server answered, whatever the status.
struct HTTPResponse {
  int statusCode = 0;
  std::string body;  ///< decompressed; at most 16 MiB
};

class URLSession {
 public:
  URLSession() = delete;

  /// Sends `request` and yields the reply; throws a URLError where there is none.
  [[nodiscard]] static Task<HTTPResponse, GeneralExecutor> post(URLRequest request);

  /// Where to connect for a host, and which certificate authority to trust for it.
  struct Route {
    std::uint16_t port;                          ///< on 127.0.0.1
    std::filesystem::path certificateAuthority;  ///< a PEM file
  };

  /// Has requests to `host` made so that start from now on, for development and tests. The host's
  /// name is still the one that the certificate must hold. Any thread.
  static void route(std::string host, Route route);
};

}  // namespace quorva::platform
