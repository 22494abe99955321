// An HTTPS server for tests that answers as it is told, well or badly, and records what it was
// sent, so that what a test checks is the wire.
//
// Threads: any thread may ask it; one thread accepts and each connection has its own, on which the
// handler is called, so handlers of several connections run at the same time.
// Errors: without a port the constructor throws std::runtime_error. A peer that leaves only ends
// its connection; an exception out of a handler ends the process.
// Requests: each is answered before the next is read, and its body is as long as its Content-Length
// says. Over HTTP/2 a request is its stream's number and its body, and the reply is frames.
// Lifetime: the destructor closes every connection and joins the threads. It waits for handlers
// that are still running: whoever holds one back has to let it go first.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "localservice/Certificates.h"

struct ssl_ctx_st;

namespace quorva::test {

using Headers = std::map<std::string, std::string, std::less<>>;

struct ReceivedRequest {
  std::string method;
  std::string target;
  Headers headers;
  std::string body;
  std::uint32_t stream = 0;

  /// The header of that name, spelled as the peer does.
  [[nodiscard]] std::optional<std::string> header(std::string_view name) const;
};

/// What goes onto the wire, and what becomes of the connection then.
struct Reply {
  enum class Then {
    keepAlive,
    close,  ///< In good order: TLS says goodbye first.
    cut,    ///< Without TLS's goodbye.
    reset,
    hold,  ///< Silent until the peer goes or the server ends.
  };

  static constexpr std::size_t endless = SIZE_MAX;

  std::string bytes;
  Then then = Then::keepAlive;
  std::string more = {};  ///< Follows the bytes, so many times, each after a pause.
  std::size_t times = 1;
  std::chrono::milliseconds pause{0};

  /// A well-formed reply with its Content-Length.
  [[nodiscard]] static Reply http(int status, const Headers& headers, std::string_view body = {});
  [[nodiscard]] static Reply json(int status, std::string_view body);
};

/// What a new connection meets.
enum class Greeting {
  tls,
  tls11,  ///< Nothing newer.
  tls12,
  http2,      ///< For those that know it.
  impatient,  ///< TLS, and the handler is called before a request's body is read.
  talkative,  ///< TLS, and the handler is called with an empty request before any is read.
  garbage,    ///< Plain bytes that are no TLS.
  silence,
  close,
  reset,    ///< Once the peer has begun its TLS.
  refusal,  ///< Not accepted at all.
};

class ScriptedServer {
 public:
  using Handler = std::function<Reply(const ReceivedRequest&)>;

  /// Listens on 127.0.0.1 when this returns.
  ScriptedServer(const localservice::Identity& identity, Handler handler,
                 Greeting greeting = Greeting::tls);
  ~ScriptedServer();

  /// What connections meet that are accepted from now on; nothing may be refused again.
  void greet(const localservice::Identity& identity, Greeting greeting);

  [[nodiscard]] std::uint16_t port() const { return port_; }

  /// Those received in full so far, in the order of their arrival.
  [[nodiscard]] std::vector<ReceivedRequest> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

  /// Waits for the `index`th request, counted from 0, for 20 seconds at most; throws
  /// std::out_of_range if it doesn't come.
  ReceivedRequest waitForRequest(std::size_t index);

  /// How many were accepted so far.
  [[nodiscard]] std::size_t connections() const {
    const std::lock_guard lock(mutex_);
    return connections_.size();
  }

 private:
  void accept();
  void serve(int socket, const std::shared_ptr<ssl_ctx_st>& tls, Greeting greeting);
  void converse(int socket, ssl_ctx_st* tls, Greeting greeting);

  const Handler handler_;
  const int listener_;
  const std::uint16_t port_;

  mutable std::mutex mutex_;  // guards everything below but acceptor_
  std::shared_ptr<ssl_ctx_st> tls_;
  Greeting greeting_;
  std::condition_variable received_;
  std::vector<ReceivedRequest> requests_;
  std::vector<int> sockets_;
  std::vector<std::jthread> connections_;
  std::jthread acceptor_;
};

/// A port of 127.0.0.1 that refuses connections for as long as this process lives.
[[nodiscard]] std::uint16_t unusedPort();

}  // namespace quorva::test
