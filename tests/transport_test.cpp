// HTTPS against a server that behaves as badly as it's told to: each request has one outcome, and
// the right one.

#include <gtest/gtest.h>

#include <latch>
#include <thread>

#include "platform/URLError.h"
#include "platform/URLSession.h"
#include "tests/ScriptedServer.h"
#include "tests/Support.h"

namespace quorva::platform {
namespace {

using namespace std::chrono_literals;
using localservice::CertificateAuthority;
using localservice::Validity;
using test::drainUntil;
using test::Greeting;
using test::ReceivedRequest;
using test::Reply;
using test::ScriptedServer;
using Code = URLError::Code;

constexpr const char* host = "service.example";

std::string address(const std::string& path = "/") {
  return std::string("https://") + host + path;
}

std::optional<Code> code(const Result<HTTPResponse>& result) {
  const auto* error = result ? nullptr : result.error().as<URLError>();
  return error ? std::optional(error->code) : std::nullopt;
}

auto request(const std::string& url, std::string body, std::chrono::milliseconds timeout = 20s) {
  URLRequest request(URL::parse(url).value());
  request.headers = {"Content-Type: application/json"};
  request.body = std::move(body);
  request.timeout = timeout;
  return URLSession::post(std::move(request));
}

Result<HTTPResponse> post(const std::string& url = address(), std::string body = "{}",
                          std::chrono::milliseconds timeout = 20s) {
  std::optional<Result<HTTPResponse>> outcome;
  start(request(url, std::move(body), timeout), [&](auto result) { outcome = std::move(result); });
  EXPECT_TRUE(drainUntil([&] { return outcome.has_value(); })) << "no outcome";
  return outcome.value();
}

class Transport : public testing::Test {
 protected:
  Transport() { test::writeFile(caFile, authority.certificatePEM()); }

  // Sends requests for `host` to a server, and to it alone.
  std::unique_ptr<ScriptedServer> serve(ScriptedServer::Handler handler,
                                        Greeting greeting = Greeting::tls) const {
    auto server = std::make_unique<ScriptedServer>(identity, std::move(handler), greeting);
    URLSession::route(host, {server->port(), caFile});
    return server;
  }

  // The error of a request that `reply` answers.
  std::optional<Code> errorFor(const Reply& reply, Greeting greeting = Greeting::tls) const {
    const auto server = serve([&](const auto&) { return reply; }, greeting);
    const bool isSilent = reply.then == Reply::Then::hold || greeting == Greeting::silence;
    return code(post(address(), "{}", isSilent ? 200ms : 20s));
  }

  const test::TemporaryDirectory directory;
  const std::filesystem::path caFile = directory.path() / "ca.pem";
  const CertificateAuthority authority = CertificateAuthority::create();
  localservice::Identity identity = authority.issue({host});
};

std::string headers(std::string_view more) {
  return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n" + std::string(more) + "\r\n";
}

constexpr const char* chunked = "Transfer-Encoding: chunked\r\n";
constexpr const char* gzip = "Content-Encoding: gzip\r\n";

TEST_F(Transport, SendsOneRequestAndGivesTheWholeReplyAndKeepsConnectionAndCookies) {
  const std::string large(3 << 20, 'x');
  const auto server = serve([](const ReceivedRequest& request) {
    return Reply::http(request.body.empty() ? 204 : 599, {{"Set-Cookie", "session=1; Path=/"}},
                       request.body);
  });
  const auto result = post(address("/a?b=c"), large);
  EXPECT_EQ(result->statusCode, 599) << "any status is a reply";
  EXPECT_EQ(result->body, large);
  EXPECT_EQ(post(address(), "")->statusCode, 204);
  const auto requests = server->requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].target, "/a?b=c");
  EXPECT_EQ(requests[0].header("Host"), host);
  EXPECT_EQ(requests[0].header("Expect"), std::nullopt);
  EXPECT_EQ(requests[0].header("Cookie"), std::nullopt);
  EXPECT_EQ(requests[1].header("Cookie"), "session=1");
  EXPECT_EQ(server->connections(), 1U);
}

TEST_F(Transport, TellsWhatTheWireDid) {
  using enum Reply::Then;
  const auto length = [](int bytes) { return "Content-Length: " + std::to_string(bytes) + "\r\n"; };
  const std::tuple<const char*, std::optional<Code>, Reply> rows[] = {
      {"closed without a word", Code::networkConnectionLost, {"", close}},
      {"reset without a word", Code::networkConnectionLost, {"", reset}},
      {"half a status line", Code::networkConnectionLost, {"HTTP/1.1 20", close}},
      {"half a body", Code::networkConnectionLost, {headers(length(9)) + "half", close}},
      {"half a body, reset", Code::networkConnectionLost, {headers(length(9)) + "half", reset}},
      {"half a chunk", Code::networkConnectionLost, {headers(chunked) + "a\r\nhalf", close}},
      {"no HTTP", Code::cannotParseResponse, {"{\"uuid\":\"u\"}\n", close}},
      {"bytes at random", Code::cannotParseResponse, {"\x01\x02\xFF\xFE\r\n\r\n", close}},
      {"no gzip", Code::cannotParseResponse, {headers(length(4) + gzip) + "abcd", close}},
      {"silence", Code::timedOut, {"", hold}},
      {"silence in the headers", Code::timedOut, {"HTTP/1.1 200 OK\r\nA: b", hold}},
      {"silence in the body", Code::timedOut, {headers(length(9)) + "half", hold}},
      {"a body that ends with the connection", std::nullopt, {headers("") + "whole", close}}};
  for (const auto& [what, expected, reply] : rows) EXPECT_EQ(errorFor(reply), expected) << what;
  EXPECT_EQ(errorFor({}, Greeting::silence), Code::timedOut);
  EXPECT_EQ(errorFor({}, Greeting::garbage), Code::secureConnectionFailed);
  EXPECT_EQ(errorFor({}, Greeting::close), Code::secureConnectionFailed);
}

TEST_F(Transport, TellsRefusedConnections) {
  URLSession::route(host, {test::unusedPort(), caFile});
  const auto result = post();
  EXPECT_EQ(code(result), Code::cannotConnectToHost);
  EXPECT_EQ(result.error().localizedDescription(), "Could not connect to the server.");
  EXPECT_NE(result.error().as<URLError>()->underlying, "") << "curl's own words";
}

TEST_F(Transport, TrustsOnlyTheRightCertificates) {
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const auto stranger = CertificateAuthority::create();
  const Validity past{now - 48h, now - 24h};
  const Validity future{now + 24h, now + 48h};
  const std::tuple<const char*, localservice::Identity, std::optional<Code>> rows[] = {
      {"good", identity, std::nullopt},
      {"name", authority.issue({"other.example", "127.0.0.1"}), Code::serverCertificateUntrusted},
      {"authority", stranger.issue({host}), Code::serverCertificateHasUnknownRoot},
      {"expired", authority.issue({host}, past), Code::serverCertificateHasBadDate},
      {"early", authority.issue({host}, future), Code::serverCertificateNotYetValid}};
  for (const auto& [what, shown, expected] : rows) {
    identity = shown;
    const auto server = serve([](const auto&) { return Reply::json(200, "{}"); });
    EXPECT_EQ(code(post()), expected) << what;
    EXPECT_EQ(server->requests().size(), expected ? 0U : 1U) << what;
  }
  // What is trusted for one host, for development, is trusted for that host alone.
  identity = authority.issue({"127.0.0.1"});
  const auto server = serve([](const auto&) { return Reply(); });
  EXPECT_EQ(code(post("https://127.0.0.1:" + std::to_string(server->port()) + "/")),
            Code::serverCertificateHasUnknownRoot);
}

TEST_F(Transport, FollowsRedirectsOverHTTPSOnly) {
  const auto server = serve([](const ReceivedRequest& request) {
    const auto redirect = [](int status, const std::string& to) {
      return Reply::http(status, {{"Location", to}});
    };
    if (request.target == "/plain") return redirect(302, "http://" + std::string(host) + "/end");
    if (request.target == "/file") return redirect(302, "file:///etc/passwd");
    if (request.target == "/loop") return redirect(302, "/loop");
    if (request.target == "/end") return Reply::json(200, request.method + " " + request.body);
    return redirect(std::stoi(request.target.substr(1)), "/end");
  });
  for (const int status : {301, 302, 303, 307, 308})
    EXPECT_EQ(post(address("/" + std::to_string(status))).value().body,
              status < 307 ? "GET " : "POST {}");
  for (const auto& url : {address("/plain"), address("/file"), std::string("http://127.0.0.1/")})
    EXPECT_EQ(code(post(url)), Code::insecureConnection) << url;
  const auto before = server->requests().size();
  EXPECT_EQ(code(post(address("/loop"))), Code::httpTooManyRedirects);
  EXPECT_EQ(server->requests().size() - before, 21U) << "20 are followed";
}

TEST_F(Transport, BoundsTheReply) {
  const std::string most((16 << 20) - 1000, 'x');
  const std::string more((16 << 20) + 1, 'x');
  EXPECT_EQ(errorFor(Reply::http(200, {}, most)), std::nullopt);
  EXPECT_EQ(errorFor(Reply::http(200, {}, more)), Code::dataLengthExceedsMaximum);
  EXPECT_EQ(errorFor({headers("") + more, Reply::Then::close}), Code::dataLengthExceedsMaximum);
}

TEST_F(Transport, EveryReplyOnTheWayStartsTheTimerAnew) {
  // What is measured is time itself: five replies, 400 ms apart, under a timer of one second.
  const auto server = serve([](const ReceivedRequest& request) {
    std::this_thread::sleep_for(400ms);
    const auto hop = request.target.size();
    return hop == 5 ? Reply::json(200, "")
                    : Reply::http(307, {{"Location", "/" + std::string(hop, 'x')}});
  });
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(code(post(address(), "{}", 1s)), std::nullopt);
  EXPECT_GE(std::chrono::steady_clock::now() - started, 2s);
}

TEST_F(Transport, ManyRequestsShareFewConnections) {
  std::latch all(6);
  const auto server = serve([&](const ReceivedRequest& request) {
    if (request.target == "/first") all.arrive_and_wait();  // six are under way at once
    return Reply::json(200, request.body);
  });
  int done = 0;
  for (int i = 0; i < 200; ++i)
    start(request(address(i < 6 ? "/first" : "/"), std::to_string(i)), [&, i](auto result) {
      EXPECT_EQ(std::move(result).value().body, std::to_string(i)) << "its own reply";
      ++done;
    });
  EXPECT_TRUE(drainUntil([&] { return done == 200; }));
  EXPECT_EQ(server->connections(), 6U);
}

}  // namespace
}  // namespace quorva::platform
