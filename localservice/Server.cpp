#include "localservice/Server.h"

#include <httplib.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>

namespace localservice {
namespace {

constexpr const char* address = "127.0.0.1";

// A connection occupies a thread while it is kept, and delays the end.
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

// Leaves out SO_REUSEPORT, which is httplib's default: it hides that a port is in use.
void setSocketOptions(socket_t socket) {
  const int yes = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

int bind(httplib::Server& server, std::uint16_t port) {
  errno = 0;
  if (port == 0) {
    if (const int chosen = server.bind_to_any_port(address); chosen > 0) return chosen;
  } else if (server.bind_to_port(address, port)) {
    return port;
  }
  throw std::runtime_error("Port " + std::to_string(port) +
                           " can't be used: " + std::generic_category().message(errno));
}

void log(const httplib::Request& request, const Answer& answer) {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  std::array<char, sizeof "2000-01-01T00:00:00Z"> time{};
  std::strftime(time.data(), time.size(), "%FT%TZ", ::gmtime_r(&now, &parts));

  std::string line = time.data() + (' ' + request.method) + ' ' + request.path + ' ' +
                     std::to_string(answer.status);
  if (answer.body.contains("detail")) line += ' ' + answer.body["detail"].get<std::string>();
  // What a client sent can't end the line.
  std::ranges::replace_if(
      line, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
  std::puts(line.c_str());
  std::fflush(stdout);
}

void respond(const httplib::Request& request, httplib::Response& response, const Answer& answer) {
  log(request, answer);
  response.status = answer.status;
  // A detail may quote what isn't UTF-8.
  response.set_content(answer.body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                       "application/json");
}

}  // namespace

void serve(const Service& service, const Identity& identity, std::uint16_t port,
           const std::function<void(int port)>& meanwhile) {
  httplib::SSLServer server([&](SSL_CTX& context) { return present(context, identity); });
  if (!server.is_valid()) throw std::runtime_error("TLS can't be set up");
  server.set_socket_options(setSocketOptions);
  server.set_keep_alive_timeout(keepAliveSeconds);
  // The service finds the way itself, so httplib has no handlers: it reads each request whole and
  // comes here with 404, or with what else it found wrong.
  server.set_error_handler([&](const httplib::Request& request, httplib::Response& response) {
    respond(request, response,
            response.status == 404 ? answer(service, request.method, request.path, request.body)
                                   : refusal(400, "The request could not be read"));
  });
  // Asked for once the server can be told to stop, and not before.
  std::promise<void> listening;
  server.new_task_queue = [&] {
    listening.set_value();
    return new httplib::ThreadPool(CPPHTTPLIB_THREAD_POOL_COUNT);
  };

  const int bound = bind(server, port);
  const auto ended = std::async(std::launch::async, [&] { server.listen_after_bind(); });
  listening.get_future().wait();
  meanwhile(bound);
  server.stop();
}

}  // namespace localservice
