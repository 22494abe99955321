#include "ScriptedServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <system_error>

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
  if (!tls || !certificate || !key ||
      SSL_CTX_set_min_proto_version(tls.get(), TLS1_2_VERSION) != 1 ||
      SSL_CTX_use_certificate(tls.get(), certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(tls.get(), key.get()) != 1) {
    ERR_clear_error();
    throw std::runtime_error("the scripted server can't use its certificate and key");
  }
  return tls;
}

struct Port {
  int socket;
  std::uint16_t number;
};

Port openPort(bool listening) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (socket < 0 || bind(socket, generic, size) != 0 || getsockname(socket, generic, &size) != 0 ||
      (listening && listen(socket, SOMAXCONN) != 0)) {
    const int error = errno;
    close(socket);
    throw std::system_error(error, std::generic_category(), "no loopback port");
  }
  return {socket, ntohs(address.sin_port)};
}

/// Also returns when the server itself has shut the socket down.
void waitUntilPeerGoes(int socket) {
  pollfd ending{socket, POLLRDHUP, 0};
  while (poll(&ending, 1, -1) < 0) {
  }
}

/// Thrown when a connection has nothing more to offer: the peer has left or speaks no HTTP.
struct Ended {};

/// The plain text of a TLS connection.
class Stream {
 public:
  Stream(SSL_CTX* tls, int socket) : ssl_(SSL_new(tls), SSL_free) {
    if (!ssl_ || SSL_set_fd(ssl_.get(), socket) != 1 || SSL_accept(ssl_.get()) != 1) throw Ended();
  }

  std::string take(std::size_t size) {
    while (buffer_.size() < size) receive();
    std::string taken = buffer_.substr(0, size);
    buffer_.erase(0, size);
    return taken;
  }

  std::string line() {
    std::size_t end = 0;
    while ((end = buffer_.find("\r\n")) == std::string::npos) receive();
    std::string taken = take(end);
    buffer_.erase(0, 2);
    return taken;
  }

  void write(std::string_view bytes) {
    std::size_t written = 0;
    if (!bytes.empty() && SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &written) != 1) {
      throw Ended();
    }
  }

  void sayGoodbye() { SSL_shutdown(ssl_.get()); }

 private:
  void receive() {
    char bytes[16 * 1024];
    std::size_t size = 0;
    if (SSL_read_ex(ssl_.get(), bytes, sizeof bytes, &size) != 1) throw Ended();
    buffer_.append(bytes, size);
  }

  const std::shared_ptr<SSL> ssl_;
  std::string buffer_;
};

std::size_t sizeIn(std::string_view text, int base) {
  std::size_t size = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), size, base).ec != std::errc()) {
    throw Ended();
  }
  return size;
}

std::string readChunks(Stream& stream) {
  std::string body;
  while (const std::size_t size = sizeIn(stream.line(), 16)) {
    body += stream.take(size);
    stream.line();
  }
  while (!stream.line().empty()) {
  }
  return body;
}

ReceivedRequest readRequest(Stream& stream) {
  const std::string start = stream.line();
  const std::size_t afterMethod = start.find(' ');
  const std::size_t afterTarget = start.rfind(' ');
  if (afterMethod == afterTarget) throw Ended();

  ReceivedRequest request;
  request.method = start.substr(0, afterMethod);
  request.target = start.substr(afterMethod + 1, afterTarget - afterMethod - 1);
  for (std::string line = stream.line(); !line.empty(); line = stream.line()) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) throw Ended();
    const std::size_t value = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
    request.headers.emplace_back(line.substr(0, colon), line.substr(value));
  }

  if (request.header("Expect")) stream.write("HTTP/1.1 100 Continue\r\n\r\n");
  if (request.header("Transfer-Encoding")) {
    request.body = readChunks(stream);
  } else if (const auto length = request.header("Content-Length")) {
    request.body = stream.take(sizeIn(*length, 10));
  }
  return request;
}

}  // namespace

std::optional<std::string> ReceivedRequest::header(std::string_view name) const {
  const auto found = std::find_if(headers.begin(), headers.end(), [name](const auto& header) {
    return header.first.size() == name.size() &&
           strncasecmp(header.first.data(), name.data(), name.size()) == 0;
  });
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
    : tls_(tlsOf(identity)), handler_(std::move(handler)), greeting_(greeting) {
  const Port port = openPort(true);
  listener_ = port.socket;
  port_ = port.number;
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
  if (!received_.wait_for(lock, std::chrono::seconds(20),
                          [&] { return requests_.size() > index; })) {
    throw std::runtime_error("waited in vain for request " + std::to_string(index) + ": only " +
                             std::to_string(requests_.size()) + " came");
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
  try {
    if (greeting_ == Greeting::tls) converse(socket);
  } catch (const Ended&) {
  }
  if (greeting_ == Greeting::garbage) send(socket, noTLS.data(), noTLS.size(), 0);
  // Only the sending half: closed altogether, it would answer the peer's first bytes by a reset.
  if (greeting_ == Greeting::close) shutdown(socket, SHUT_WR);
  if (greeting_ != Greeting::tls) waitUntilPeerGoes(socket);

  const std::lock_guard lock(mutex_);
  open_.erase(socket);
  close(socket);  // not without the lock: the destructor shuts down what is open
}

void ScriptedServer::converse(int socket) {
  Stream stream(tls_.get(), socket);
  Reply::Then then = Reply::Then::keepAlive;
  while (then == Reply::Then::keepAlive) {
    const ReceivedRequest request = readRequest(stream);
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(request);
    }
    received_.notify_all();
    const Reply reply = handler_(request);
    stream.write(reply.bytes);
    then = reply.then;
  }
  if (then == Reply::Then::close) stream.sayGoodbye();
  if (then == Reply::Then::hold) waitUntilPeerGoes(socket);
  if (then == Reply::Then::reset) {
    const linger abrupt{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &abrupt, sizeof abrupt);
  }
}

std::uint16_t unusedPort() {
  static const Port bound = openPort(false);  // being taken, it goes to nobody who would listen
  return bound.number;
}

}  // namespace quorva::test
