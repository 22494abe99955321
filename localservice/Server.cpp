#include "localservice/Server.h"

#include <httplib.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

#include "localservice/LinkPage.h"

namespace localservice {
namespace {

constexpr const char* address = "127.0.0.1";

// A connection that is kept delays the end.
constexpr int keepAliveSeconds = 1;

template <auto read, auto destroy>
auto fromPEM(const std::string& text) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> in(
      BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
  auto* const value = read(in.get(), nullptr, nullptr, nullptr);
  return std::unique_ptr<std::remove_pointer_t<decltype(value)>, decltype(destroy)>(value, destroy);
}

bool present(SSL_CTX& context, const Identity& identity) {
  const auto certificate = fromPEM<PEM_read_bio_X509, X509_free>(identity.certificatePEM);
  const auto key = fromPEM<PEM_read_bio_PrivateKey, EVP_PKEY_free>(identity.privateKeyPEM);
  return SSL_CTX_use_certificate(&context, certificate.get()) == 1 &&
         SSL_CTX_use_PrivateKey(&context, key.get()) == 1;
}

std::uint16_t bind(httplib::Server& server, std::uint16_t port) {
  socket_t listening = -1;
  server.set_socket_options([&](socket_t socket) {
    listening = socket;
    // Leaves out SO_REUSEPORT, which is httplib's default: it hides that a port is in use.
    const int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  errno = 0;
  const int bound = port == 0                            ? server.bind_to_any_port(address)
                    : server.bind_to_port(address, port) ? port
                                                         : -1;
  if (bound <= 0) {
    throw std::runtime_error("Port " + std::to_string(port) +
                             " can't be used: " + std::generic_category().message(errno));
  }
  // httplib lets five wait, and whoever comes then waits for a second at least.
  ::listen(listening, SOMAXCONN);
  return static_cast<std::uint16_t>(bound);
}

std::string detail(const Answer& answer) {
  return answer.body.contains("detail") ? ' ' + answer.body["detail"].get<std::string>() : "";
}

void log(const httplib::Request& request, int status, const std::string& more) {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  std::array<char, sizeof "2000-01-01T00:00:00Z"> time{};
  std::strftime(time.data(), time.size(), "%FT%TZ", ::gmtime_r(&now, &parts));

  std::string line = time.data() + (' ' + request.method) + ' ' + request.path + ' ' +
                     std::to_string(status) + more;
  // What a client sent can't end the line.
  std::ranges::replace_if(
      line, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
  std::puts(line.c_str());
  std::fflush(stdout);
}

void respond(const httplib::Request& request, httplib::Response& response, const Answer& answer) {
  log(request, answer.status, detail(answer));
  response.status = answer.status;
  // A detail may quote what isn't UTF-8.
  response.set_content(answer.body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                       "application/json");
}

void respond(const httplib::Request& request, httplib::Response& response, const Page& page) {
  log(request, page.status, page.location.empty() ? "" : " to " + page.location);
  response.status = page.status;
  response.set_content(page.html, "text/html; charset=utf-8");
  if (!page.location.empty()) response.set_header("Location", page.location);
  // Each opening of a link is to be seen here.
  response.set_header("Cache-Control", "no-store");
  response.set_header("Content-Security-Policy",
                      "default-src 'none'; img-src *; style-src 'unsafe-inline'");
}

// A connection has a thread of its own while it lasts: one that is kept holds nobody up.
class ThreadPerConnection : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> connection) override {
    const auto serve = [this, connection = std::move(connection)] {
      connection();
      const std::scoped_lock lock(mutex_);
      --open_;
      closed_.notify_all();
    };
    {
      const std::scoped_lock lock(mutex_);
      ++open_;
    }
    try {
      std::thread(serve).detach();
    } catch (const std::system_error&) {
      serve();
    }
  }

  void shutdown() override {
    std::unique_lock lock(mutex_);
    closed_.wait(lock, [this] { return open_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable closed_;
  int open_ = 0;
};

// Listens in a thread of its own, from construction on.
class Listener {
 public:
  Listener(std::unique_ptr<httplib::Server> server, std::uint16_t port,
           httplib::Server::HandlerWithResponse handler)
      : server_(std::move(server)) {
    server_->set_tcp_nodelay(true);
    server_->set_keep_alive_timeout(keepAliveSeconds);
    server_->set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
    // The service finds the way itself, so httplib has no handlers: it reads each request whole and
    // comes here with 404, or with what else it found wrong.
    server_->set_error_handler(std::move(handler));
    // Asked for once the server can be told to stop, and not before.
    std::promise<void> listening;
    server_->new_task_queue = [&] {
      listening.set_value();
      return new ThreadPerConnection;
    };
    port_ = bind(*server_, port);
    ended_ = std::async(std::launch::async, [this] { server_->listen_after_bind(); });
    listening.get_future().wait();
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() { server_->stop(); }

  [[nodiscard]] std::uint16_t port() const { return port_; }

 private:
  const std::unique_ptr<httplib::Server> server_;
  std::uint16_t port_ = 0;
  std::future<void> ended_;
};

}  // namespace

void serve(const Service& service, const Identity& identity, Ports wanted,
           const std::function<void(Ports bound)>& meanwhile) {
  auto secure = std::make_unique<httplib::SSLServer>(
      [&](SSL_CTX& context) { return present(context, identity); });
  if (!secure->is_valid()) throw std::runtime_error("TLS can't be set up");

  using Outcome = httplib::Server::HandlerResponse;
  const Listener library(std::move(secure), wanted.https,
                         [&](const httplib::Request& request, httplib::Response& response) {
                           respond(request, response,
                                   response.status == 404
                                       ? answer(service, {request.method, request.path,
                                                          request.body, request.remote_addr})
                                       : refusal(400, "The request could not be read"));
                           return Outcome::Handled;
                         });
  const Listener browser(
      std::make_unique<httplib::Server>(), wanted.http,
      [&](const httplib::Request& request, httplib::Response& response) {
        respond(request, response,
                visit(service, {request.method, request.get_header_value("Host"), request.target,
                                request.get_header_value("User-Agent"), request.remote_addr}));
        return Outcome::Handled;
      });
  meanwhile({library.port(), browser.port()});
}

}  // namespace localservice
