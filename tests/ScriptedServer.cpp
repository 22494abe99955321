#include "ScriptedServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
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

std::shared_ptr<BIO> reading(const std::string& text) {
  return {BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free};
}

std::shared_ptr<SSL_CTX> tlsOf(const localservice::Identity& identity) {
  const std::shared_ptr<SSL_CTX> tls(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  const std::shared_ptr<X509> certificate(
      PEM_read_bio_X509(reading(identity.certificatePEM).get(), nullptr, nullptr, nullptr),
      X509_free);
  const std::shared_ptr<EVP_PKEY> key(
      PEM_read_bio_PrivateKey(reading(identity.privateKeyPEM).get(), nullptr, nullptr, nullptr),
      EVP_PKEY_free);
  if (SSL_CTX_use_certificate(tls.get(), certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(tls.get(), key.get()) != 1) {
    throw std::runtime_error("the scripted server can't use its certificate and key");
  }
  return tls;
}

int boundSocket() {
  const int bound = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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
  while (recv(socket, ignored, sizeof ignored, 0) > 0) {
  }
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
  constexpr std::string_view blankLine = "\r\n\r\n";
  std::string bytes;
  while (bytes.find(blankLine) == bytes.npos) {
    if (!receive(ssl, bytes)) return std::nullopt;
  }
  ReceivedRequest request;
  request.body = bytes.substr(bytes.find(blankLine) + blankLine.size());
  std::istringstream head(bytes);
  std::string line;
  head >> request.method >> request.target;
  std::getline(head, line);
  while (std::getline(head, line) && line != "\r") {
    const std::size_t colon = line.find(": ");
    request.headers.emplace(line.substr(0, colon), line.substr(colon + 2, line.size() - colon - 3));
  }
  const std::size_t length = std::stoul(request.header("Content-Length").value_or("0"));
  while (request.body.size() < length) {
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
  if (listen(listener_, SOMAXCONN) != 0) throw std::runtime_error("can't listen");
  // Inherited by the connections: a reply isn't to wait until the session tickets are acknowledged.
  const int noDelay = 1;
  setsockopt(listener_, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
  acceptor_ = std::jthread([this] { acceptAll(); });
}

ScriptedServer::~ScriptedServer() {
  shutdown(listener_, SHUT_RDWR);  // wakes accept
  acceptor_.join();
  {
    const std::lock_guard lock(mutex_);
    for (const int socket : open_) shutdown(socket, SHUT_RDWR);
  }
  connections_.clear();
  close(listener_);
}

std::vector<ReceivedRequest> ScriptedServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

ReceivedRequest ScriptedServer::waitForRequest(std::size_t index) {
  std::unique_lock lock(mutex_);
  const auto hasCome = [&] { return requests_.size() > index; };
  if (!received_.wait_for(lock, std::chrono::seconds(20), hasCome)) {
    throw std::runtime_error("waited in vain for request " + std::to_string(index));
  }
  return requests_[index];
}

std::size_t ScriptedServer::connections() const {
  const std::lock_guard lock(mutex_);
  return connections_.size();
}

void ScriptedServer::acceptAll() {
  // The connections' threads inherit this: writing to a peer that has gone mustn't end the test.
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);

  for (int socket = 0; (socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
    const std::lock_guard lock(mutex_);
    open_.insert(socket);
    connections_.emplace_back([this, socket] { serve(socket); });
  }
}

void ScriptedServer::serve(int socket) {
  constexpr std::string_view noTLS = "This is no TLS.\r\n";
  if (greeting_ == Greeting::tls) converse(socket);
  if (greeting_ == Greeting::garbage) send(socket, noTLS.data(), noTLS.size(), 0);
  // Only the sending half: closed altogether, it would answer the peer's first bytes by a reset.
  if (greeting_ == Greeting::close) shutdown(socket, SHUT_WR);
  if (greeting_ != Greeting::tls) waitUntilPeerGoes(socket);

  const std::lock_guard lock(mutex_);
  open_.erase(socket);
  close(socket);  // not without the lock: the destructor shuts down what is open
}

void ScriptedServer::converse(int socket) {
  const std::shared_ptr<SSL> ssl(SSL_new(tls_.get()), SSL_free);
  if (SSL_set_fd(ssl.get(), socket) != 1 || SSL_accept(ssl.get()) != 1) return;
  auto then = Reply::Then::keepAlive;
  while (then == Reply::Then::keepAlive) {
    const auto request = receiveRequest(ssl.get());
    if (!request) return;
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(*request);
    }
    received_.notify_all();
    const Reply reply = handler_(*request);
    std::size_t written = 0;
    SSL_write_ex(ssl.get(), reply.bytes.data(), reply.bytes.size(), &written);
    if (written != reply.bytes.size()) return;
    then = reply.then;
  }
  if (then == Reply::Then::close) SSL_shutdown(ssl.get());
  if (then == Reply::Then::hold) waitUntilPeerGoes(socket);
  if (then == Reply::Then::reset) {
    const linger abrupt{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &abrupt, sizeof abrupt);
  }
}

std::uint16_t unusedPort() {
  static const int bound = boundSocket();  // being taken, it goes to nobody who would listen
  return portOf(bound);
}

}  // namespace quorva::test
