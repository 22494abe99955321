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

template <auto read, auto release>
auto fromPEM(const std::string& text) {
  const std::shared_ptr<BIO> bytes(BIO_new_mem_buf(text.data(), -1), BIO_free);
  auto* const object = read(bytes.get(), nullptr, nullptr, nullptr);
  return std::shared_ptr<std::decay_t<decltype(*object)>>(object, release);
}

int chooseHTTP2(SSL*, const unsigned char** chosen, unsigned char* size,
                const unsigned char* offered, unsigned offeredSize, void*) {
  static constexpr unsigned char protocol[] = {2, 'h', '2'};
  unsigned char* common = nullptr;
  const int found =
      SSL_select_next_proto(&common, size, protocol, sizeof protocol, offered, offeredSize);
  *chosen = common;
  return found == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

std::shared_ptr<SSL_CTX> tlsOf(const localservice::Identity& identity, Greeting greeting) {
  const std::shared_ptr<SSL_CTX> tls(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  const auto certificate = fromPEM<PEM_read_bio_X509, X509_free>(identity.certificatePEM);
  const auto key = fromPEM<PEM_read_bio_PrivateKey, EVP_PKEY_free>(identity.privateKeyPEM);
  SSL_CTX_use_certificate(tls.get(), certificate.get());
  SSL_CTX_use_PrivateKey(tls.get(), key.get());
  if (greeting == Greeting::tls11) {
    SSL_CTX_set_security_level(tls.get(), 0);  // so old that it isn't on offer otherwise
    SSL_CTX_set_max_proto_version(tls.get(), TLS1_1_VERSION);
  }
  if (greeting == Greeting::tls12) SSL_CTX_set_max_proto_version(tls.get(), TLS1_2_VERSION);
  if (greeting == Greeting::http2) SSL_CTX_set_alpn_select_cb(tls.get(), chooseHTTP2, nullptr);
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

/// The server's end of a TLS connection.
struct Connection {
  /// Waits for more bytes; false when the peer has gone.
  bool receive() {
    char more[16 * 1024];
    std::size_t size = 0;
    const bool received = SSL_read_ex(ssl.get(), more, sizeof more, &size) == 1;
    bytes.append(more, size);
    return received;
  }

  std::optional<std::string> take(std::size_t size) {
    while (bytes.size() < size) {
      if (!receive()) return std::nullopt;
    }
    std::string taken = bytes.substr(0, size);
    bytes.erase(0, size);
    return taken;
  }

  bool send(const std::string& text) const {
    std::size_t written = 0;
    return text.empty() || SSL_write_ex(ssl.get(), text.data(), text.size(), &written) == 1;
  }

  /// Says it all, if the peer listens so long; false when there is no conversation any more.
  bool answer(const Reply& reply, int socket) const {
    bool heard = send(reply.bytes);
    for (std::size_t i = 0; heard && !reply.more.empty() && i < reply.times; ++i) {
      std::this_thread::sleep_for(reply.pause);
      heard = send(reply.more);
    }
    if (reply.then == Reply::Then::close) SSL_shutdown(ssl.get());
    if (reply.then == Reply::Then::hold) waitUntilPeerGoes(socket);
    if (reply.then == Reply::Then::reset) reset(socket);
    return heard && reply.then == Reply::Then::keepAlive;
  }

  std::shared_ptr<SSL> ssl;
  std::string bytes = {};                              // received, and not yet taken
  std::map<std::uint32_t, ReceivedRequest> open = {};  // the streams of HTTP/2
};

std::optional<ReceivedRequest> receiveRequest(Connection& peer, bool withBody) {
  std::size_t end = 0;
  while ((end = peer.bytes.find("\r\n\r\n")) == peer.bytes.npos) {
    if (!peer.receive()) return std::nullopt;
  }
  ReceivedRequest request;
  std::istringstream head(*peer.take(end + 4));
  std::string name, value;
  head >> request.method >> request.target >> value;
  while (getline(head >> std::ws, name, ':') && getline(head >> std::ws, value, '\r')) {
    request.headers.emplace(name, value);
  }
  if (!withBody) return request;
  auto body = peer.take(std::stoul(request.header("Content-Length").value_or("0")));
  if (!body) return std::nullopt;
  request.body = *std::move(body);
  return request;
}

std::optional<ReceivedRequest> receiveStream(Connection& peer) {
  for (;;) {
    const auto head = peer.take(9);
    if (!head) return std::nullopt;
    const auto byte = [&](std::size_t i) { return std::uint32_t(std::uint8_t(head->at(i))); };
    const auto payload = peer.take(byte(0) << 16 | byte(1) << 8 | byte(2));
    if (!payload) return std::nullopt;
    const bool isData = byte(3) == 0;
    const bool isHeaders = byte(3) == 1;
    if (!isData && !isHeaders) continue;
    const auto stream = byte(5) << 24 | byte(6) << 16 | byte(7) << 8 | byte(8);
    auto& request = peer.open[stream];
    request.stream = stream;
    if (isData) request.body += *payload;
    const bool isWhole = byte(4) & 1;
    if (isWhole) return peer.open.extract(stream).mapped();
  }
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
    : handler_(std::move(handler)), listener_(boundSocket()), port_(portOf(listener_)) {
  greet(identity, greeting);
}

ScriptedServer::~ScriptedServer() {
  shutdown(listener_, SHUT_RDWR);  // wakes accept
  if (acceptor_.joinable()) acceptor_.join();
  for (const int socket : sockets_) shutdown(socket, SHUT_RDWR);
  connections_.clear();
  for (const int socket : sockets_) close(socket);
  close(listener_);
}

void ScriptedServer::greet(const localservice::Identity& identity, Greeting greeting) {
  {
    const std::lock_guard lock(mutex_);
    tls_ = tlsOf(identity, greeting);
    greeting_ = greeting;
  }
  if (greeting == Greeting::refusal || acceptor_.joinable()) return;
  listen(listener_, SOMAXCONN);
  acceptor_ = std::jthread([this] { accept(); });
}

ReceivedRequest ScriptedServer::waitForRequest(std::size_t index) {
  std::unique_lock lock(mutex_);
  received_.wait_for(lock, std::chrono::seconds(20), [&] { return requests_.size() > index; });
  return requests_.at(index);
}

void ScriptedServer::accept() {
  // The connections' threads inherit this: writing to a peer that has gone mustn't end the test.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  for (int socket = 0; (socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
    constexpr int atOnce = 1;  // what is written, rather than when more is acknowledged
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
    const std::lock_guard lock(mutex_);
    sockets_.push_back(socket);
    connections_.emplace_back(
        [this, socket, tls = tls_, greeting = greeting_] { serve(socket, tls, greeting); });
  }
}

void ScriptedServer::serve(int socket, const std::shared_ptr<ssl_ctx_st>& tls, Greeting greeting) {
  char first = 0;
  switch (greeting) {
    case Greeting::garbage:
      send(socket, "no TLS\r\n", 8, 0);
      break;
    case Greeting::silence:
    case Greeting::refusal:
      break;
    case Greeting::close:
      // Only the sending half: closed altogether, it would answer the peer's first bytes by a
      // reset.
      shutdown(socket, SHUT_WR);
      break;
    case Greeting::reset:
      static_cast<void>(recv(socket, &first, 1, 0));
      return reset(socket);
    default:
      converse(socket, tls.get(), greeting);
      return static_cast<void>(shutdown(socket, SHUT_RDWR));
  }
  waitUntilPeerGoes(socket);
}

void ScriptedServer::converse(int socket, ssl_ctx_st* tls, Greeting greeting) {
  Connection peer{{SSL_new(tls), SSL_free}};
  if (SSL_set_fd(peer.ssl.get(), socket) != 1 || SSL_accept(peer.ssl.get()) != 1) return;
  const unsigned char* protocol = nullptr;
  unsigned protocolSize = 0;
  SSL_get0_alpn_selected(peer.ssl.get(), &protocol, &protocolSize);
  const bool isHTTP2 = protocolSize > 0;
  constexpr std::string_view preface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
  if (isHTTP2 && peer.take(preface.size()) != preface) return;
  if (greeting == Greeting::talkative && !peer.answer(handler_({}), socket)) return;
  for (;;) {
    const auto request =
        isHTTP2 ? receiveStream(peer) : receiveRequest(peer, greeting != Greeting::impatient);
    if (!request) return;
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(*request);
    }
    received_.notify_all();
    if (!peer.answer(handler_(*request), socket)) return;
  }
}

std::uint16_t unusedPort() {
  static const int bound = boundSocket();  // being taken, it goes to nobody who would listen
  return portOf(bound);
}

}  // namespace quorva::test
