#include "localservice/Server.h"

#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "localservice/LinkPage.h"
#include "localservice/Listener.h"
#include "localservice/Routes.h"

namespace localservice {
namespace {

using httplib::Request;
using httplib::Response;
using nlohmann::json;
using Clock = std::chrono::system_clock;

// What of a body is kept to be looked at, and of a request's line, in bytes.
constexpr std::size_t largestKept = std::size_t{64} * 1024;
constexpr std::size_t longestLine = 1000;

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

// UTC, with milliseconds.
std::string text(Clock::time_point time) {
  const std::time_t seconds = Clock::to_time_t(time);
  const auto milliseconds =
      std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  std::tm parts{};
  std::array<char, sizeof "2000-01-01T00:00:00"> date{};
  std::strftime(date.data(), date.size(), "%FT%T", ::gmtime_r(&seconds, &parts));
  return date.data() + ('.' + std::to_string(1000 + milliseconds).substr(1)) + 'Z';
}

void log(const Request& request, int status, const std::string& more) {
  std::string line = text(Clock::now()) + ' ' + request.method + ' ' + request.path + ' ' +
                     std::to_string(status) + more;
  // What a client sent can't end the line, nor fill the disk.
  line.resize(std::min(line.size(), longestLine));
  std::ranges::replace_if(
      line, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
  std::fprintf(stderr, "%s\n", line.c_str());
}

void shortenKeys(json& value) {
  if (!value.is_structured()) return;
  for (const auto& [name, child] : value.items()) {
    if (name == "api_key") {
      child = shortened(child.is_string() ? child.get<std::string>() : "");
    } else {
      shortenKeys(child);
    }
  }
}

// A body for a person to look at, without whole API keys.
json shown(const std::string& body) {
  if (body.size() > largestKept) return std::to_string(body.size()) + " bytes";
  json value = parse(body);
  if (value.is_discarded()) return "No JSON: " + std::to_string(body.size()) + " bytes";
  shortenKeys(value);
  return value;
}

// The device that calls, or that just got its name.
json deviceOf(const json& sent, const json& answered) {
  for (const auto& [body, key] :
       {std::pair(&sent, "device_id"), {&sent, "device_uuid"}, {&answered, "uuid"}}) {
    if (body->is_object() && body->contains(key) && (*body)[key].is_string()) return (*body)[key];
  }
  return "";
}

void answerLibrary(Desk& desk, const Request& request, Response& response) {
  const auto begun = Clock::now();
  const bool isOurs = request.path.starts_with(endpointsPath);
  const std::string endpoint = isOurs ? request.path.substr(endpointsPath.size()) : request.path;
  const Reply reply = desk.faults.reply(endpoint, [&] {
    if (response.status != 404)
      return refusal(response.status == 413 ? 413 : 400, "The request could not be read");
    return answer(desk.service, {request.method, request.path, request.body, request.remote_addr});
  });
  desk.news.pause(reply.delay);

  const json answered = json::parse(reply.body, nullptr, false);
  const bool isRefused = answered.is_object() && answered.contains("detail");
  std::string more =
      isRefused ? ' ' + answered["detail"].dump(-1, ' ', false, json::error_handler_t::replace)
                : "";
  for (const std::string& fault : reply.faults) more += " (" + fault + ')';
  log(request, reply.status, more);
  const json sent = shown(request.body);
  const bool isText = answered.is_discarded() && reply.body.size() <= largestKept;
  const json description{
      {"time", text(begun)},
      {"endpoint", endpoint},
      {"status", reply.status},
      {"milliseconds",
       std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun).count()},
      {"device", deviceOf(sent, answered)},
      {"sent", sent},
      {"answered", isText ? json(reply.body) : shown(reply.body)},
      {"faults", reply.faults}};
  try {
    desk.service.store.addRequest(description.dump(-1, ' ', false, json::error_handler_t::replace));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "The request can't be kept: %s\n", error.what());
  }
  desk.news.announce();

  response.status = reply.status;
  if (reply.isReset || reply.isHalf) {
    // After the head: what breaks before it on a kept connection, clients send again.
    response.set_content_provider(
        std::max<std::size_t>(reply.body.size(), 1), "application/json",
        [reply, port = request.local_port, peerPort = request.remote_port](
            std::size_t, std::size_t, httplib::DataSink& sink) {
          if (reply.isReset) {
            reset(port, peerPort);
          } else {
            sink.write(reply.body.data(), reply.body.size() / 2);
          }
          return false;
        });
  } else {
    response.set_content(reply.body, "application/json");
  }
}

void answerBrowser(Desk& desk, const Request& request, Response& response) {
  if (refuseUnknown(request, response)) return;
  const Page page =
      visit(desk.service, {request.method, request.target, request.get_header_value("User-Agent"),
                           request.remote_addr});
  desk.news.announce();
  log(request, page.status, page.location.empty() ? "" : " to " + page.location);
  response.status = page.status;
  response.set_content(page.html, "text/html; charset=utf-8");
  if (!page.location.empty()) response.set_header("Location", page.location);
  // Each opening of a link is to be seen here.
  response.set_header("Cache-Control", "no-store");
  response.set_header("Content-Security-Policy",
                      "default-src 'none'; img-src *; style-src 'unsafe-inline'");
}

// The way is found by `handle`: httplib reads each request whole and comes there with 404, or with
// what else it found wrong.
void handleAll(httplib::Server& server, Desk& desk,
               void (*handle)(Desk&, const Request&, Response&)) {
  server.set_payload_max_length(largestBody);
  server.set_error_handler(httplib::Server::HandlerWithResponse(
      [&desk, handle](const Request& request, Response& response) {
        handle(desk, request, response);
        return httplib::Server::HandlerResponse::Handled;
      }));
}

}  // namespace

void serve(const Service& service, const Identity& identity, Ports wanted,
           const std::function<void(Ports bound)>& meanwhile) {
  Desk desk{service};
  auto secure = std::make_unique<httplib::SSLServer>(
      [&](SSL_CTX& context) { return present(context, identity); });
  if (!secure->is_valid()) throw std::runtime_error("TLS can't be set up");
  handleAll(*secure, desk, answerLibrary);
  auto plain = std::make_unique<httplib::Server>();
  addRoutes(*plain, desk);
  handleAll(*plain, desk, answerBrowser);

  constexpr auto asManyAsWanted = std::numeric_limits<std::size_t>::max();
  const Listener library(std::move(secure), wanted.https, asManyAsWanted);
  // The body of a request that was refused isn't read: the rest of its connection could say
  // anything, in the name of another page.
  const Listener browser(std::move(plain), wanted.http, 1);
  meanwhile({library.port(), browser.port()});
  desk.news.end();
}

}  // namespace localservice
