#include "ScriptedServer.h"

#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <stdexcept>

namespace quorva::test {
namespace {

template <auto read, auto release>
auto fromPEM(const std::string& text) {
  const std::shared_ptr<BIO> bytes(BIO_new_mem_buf(text.data(), -1), BIO_free);
  auto* const object = read(bytes.get(), nullptr, nullptr, nullptr);
  return std::shared_ptr<std::decay_t<decltype(*object)>>(object, release);
}

std::shared_ptr<SSL_CTX> tlsOf(const localservice::Identity& identity) {
  const std::shared_ptr<SSL_CTX> tls(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  const auto certificate = fromPEM<PEM_read_bio_X509, X509_free>(identity.certificatePEM);
  const auto key = fromPEM<PEM_read_bio_PrivateKey, EVP_PKEY_free>(identity.privateKeyPEM);
  SSL_CTX_use_certificate(tls.get(), certificate.get());
  SSL_CTX_use_PrivateKey(tls.get(), key.get());
  return tls;
}

int boundSocket() {
  const int bound = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  if (bind(bound, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("no loopback port");
  }
  return bound;
}

std::uint16_t portOf(int bound) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(bound, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

/// Also returns when the server itself has shut the socket down.
void waitUntilPeerGoes(int socket) {
  char ignored[1024];
  while (recv(socket, ignored, sizeof ignored, 0) > 0) continue;
}

/// Linux resets a connection when its socket is told to connect to nobody.
void reset(int socket) {
  constexpr sockaddr nobody{AF_UNSPEC, {}};
  static_cast<void>(connect(socket, &nobody, sizeof nobody));
}

/// Appends what comes next; false when the peer has gone.
bool receive(SSL* ssl, std::string& bytes) {
  char more[16 * 1024];
  std::size_t size = 0;
  const bool received = SSL_read_ex(ssl, more, sizeof more, &size) == 1;
  bytes.append(more, size);
  return received;
}

std::optional<ReceivedRequest> receiveRequest(SSL* ssl) {
  std::string bytes;
  std::size_t end = 0;
  while ((end = bytes.find("\r\n\r\n")) == bytes.npos) {
    if (!receive(ssl, bytes)) return std::nullopt;
  }
  ReceivedRequest request;
  std::istringstream head(bytes.substr(0, end + 1));
  std::string name, value;
  head >> request.method >> request.target >> value;
  while (getline(head >> std::ws, name, ':') && getline(head >> std::ws, value, '\r')) {
    request.headers.emplace(name, value);
  }
  request.body = bytes.substr(end + 4);
  const std::size_t size = std::stoul(request.header("Content-Length").value_or("0"));
  while (request.body.size() < size) {
    if (!receive(ssl, request.body)) return std::nullopt;
  }
  return request;
}

}  // namespace

std::optional<std::string> ReceivedRequest::header(std::string_view name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? std::nullopt : std::optional(found->second);
}

Reply Reply::http(int status, const Headers& headers, std::string_view body) {
  std::string bytes = "HTTP/1.1 " + std::to_string(status) + " \r\n";
  for (const auto& [name, value] : headers) bytes += name + ": " + value + "\r\n";
  bytes += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  return {bytes.append(body)};
}

Reply Reply::json(int status, std::string_view body) {
  return http(status, {{"Content-Type", "application/json"}}, body);
}

ScriptedServer::ScriptedServer(const localservice::Identity& identity, Handler handler,
                               Greeting greeting)
    : tls_(tlsOf(identity)),
      handler_(std::move(handler)),
      greeting_(greeting),
      listener_(boundSocket()),
      port_(portOf(listener_)) {
  listen(listener_, SOMAXCONN);
  acceptor_ = std::jthread([this] {
    // The connections' threads inherit this: writing to a peer that has gone mustn't end the test.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (int socket = 0; (socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      const std::lock_guard lock(mutex_);
      sockets_.push_back(socket);
      connections_.emplace_back([this, socket] { serve(socket); });
    }
  });
}

ScriptedServer::~ScriptedServer() {
  shutdown(listener_, SHUT_RDWR);  // wakes accept
  acceptor_.join();
  for (const int socket : sockets_) shutdown(socket, SHUT_RDWR);
  connections_.clear();
  for (const int socket : sockets_) close(socket);
  close(listener_);
}

ReceivedRequest ScriptedServer::waitForRequest(std::size_t index) {
  std::unique_lock lock(mutex_);
  received_.wait_for(lock, std::chrono::seconds(20), [&] { return requests_.size() > index; });
  return requests_.at(index);
}

void ScriptedServer::serve(int socket) {
  if (greeting_ == Greeting::tls) converse(socket);
  if (greeting_ == Greeting::garbage) send(socket, "no TLS\r\n", 8, 0);
  // Only the sending half: closed altogether, it would answer the peer's first bytes by a reset.
  if (greeting_ == Greeting::close) shutdown(socket, SHUT_WR);
  if (greeting_ != Greeting::tls) waitUntilPeerGoes(socket);
  shutdown(socket, SHUT_RDWR);
}

void ScriptedServer::converse(int socket) {
  const std::shared_ptr<SSL> ssl(SSL_new(tls_.get()), SSL_free);
  if (SSL_set_fd(ssl.get(), socket) != 1 || SSL_accept(ssl.get()) != 1) return;
  while (const auto request = receiveRequest(ssl.get())) {
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(*request);
    }
    received_.notify_all();
    const Reply reply = handler_(*request);
    std::size_t written = 0;
    SSL_write_ex(ssl.get(), reply.bytes.data(), reply.bytes.size(), &written);
    if (reply.then == Reply::Then::close) SSL_shutdown(ssl.get());
    if (reply.then == Reply::Then::hold) waitUntilPeerGoes(socket);
    if (reply.then == Reply::Then::reset) reset(socket);
    if (reply.then != Reply::Then::keepAlive) return;
  }
}

std::uint16_t unusedPort() {
  static const int bound = boundSocket();  // being taken, it goes to nobody who would listen
  return portOf(bound);
}

}  // namespace quorva::test
