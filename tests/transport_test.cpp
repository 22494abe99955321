// HTTPS against a server that behaves as badly as it's told to: each request has one outcome, and
// the right one, and the next request is none the worse for it.

#include <gtest/gtest.h>

#include <fstream>
#include <latch>
#include <random>
#include <thread>

#include "platform/URLError.h"
#include "platform/URLSession.h"
#include "tests/ScriptedServer.h"
#include "tests/Support.h"
#include "tests/Vectors.h"

namespace quorva::platform {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using localservice::CertificateAuthority;
using localservice::Identity;
using test::drainUntil;
using test::Greeting;
using test::ReceivedRequest;
using test::Reply;
using test::rounds;
using test::ScriptedServer;
using Code = URLError::Code;

constexpr const char* host = "service.example";

std::string address(const std::string& path = "/", const std::string& at = host) {
  return "https://" + at + path;
}

// In words, for tables: "200 its body", where that is large "200 16777216 bytes", or
// "URLError -1005".
std::string kind(Code code) {
  return "URLError " + std::to_string(static_cast<int>(code));
}
std::string kind(const Result<HTTPResponse>& result) {
  if (result) {
    const bool isLarge = result->body.size() > 100;
    return std::to_string(result->statusCode) + " " +
           (isLarge ? std::to_string(result->body.size()) + " bytes" : result->body);
  }
  const auto* error = result.error().as<URLError>();
  return error ? kind(error->code) : result.error().localizedDescription();
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
  return test::outcome(request(url, std::move(body), timeout));
}

class Transport : public testing::Test {
 protected:
  Transport() { test::writeFile(caFile, authority.certificatePEM()); }

  // Sends requests for `host` to a server, and to it alone.
  std::unique_ptr<ScriptedServer> serve(ScriptedServer::Handler handler) const {
    auto server = std::make_unique<ScriptedServer>(identity, std::move(handler));
    URLSession::route(host, {server->port(), caFile});
    return server;
  }

  const test::TemporaryDirectory directory;
  const std::filesystem::path caFile = directory.path() / "ca.pem";
  const CertificateAuthority authority = CertificateAuthority::create();
  const Identity identity = authority.issue({host, "*.service.example"});
};

using enum Reply::Then;

// What a server can do that isn't to be expected of it, and what comes of it. It does so to
// requests whose body isn't `good`, and answers those well.
struct Fault {
  std::string what;
  std::string outcome;
  ScriptedServer::Handler handler;
  Greeting greeting = Greeting::tls;
  std::chrono::milliseconds timeout = 20s;
  std::size_t bodySize = 2;
  std::optional<Identity> identity = std::nullopt;  // where it isn't the right one
};

constexpr auto soon = 300ms;

std::string repeated(const std::string& text, std::size_t times) {
  std::string all;
  while (times-- > 0) all += text;
  return all;
}

std::string length(std::size_t bytes) {
  return "Content-Length: " + std::to_string(bytes) + "\r\n";
}
std::string ok(const std::string& headers, const std::string& body = {}) {
  return "HTTP/1.1 200 OK\r\n" + headers + "\r\n" + body;
}
const std::string whole = ok(length(5), "whole");
const std::string chunked = "Transfer-Encoding: chunked\r\n";
const std::string gzip = "Content-Encoding: gzip\r\n";
const std::string gzipHeader("\x1f\x8b\x08\0\0\0\0\0\0\3", 10);
const std::string zipped = gzipHeader + "\1\5\0\xfa\xffwhole\x4f\x29\x59\xc4\5\0\0\0"s;
// Deflated, a zero, and then 2064 more as often as it is repeated.
const std::string aZero = "\x62";
const std::string manyZeros = "\x18\x05\xa3\x60\x14\x8c\x82\x51\x30\x0a\x46\xc1\x28";

ScriptedServer::Handler says(std::string bytes, Reply::Then then = close, std::string more = {},
                             std::size_t times = Reply::endless,
                             std::chrono::milliseconds pause = 0ms) {
  return [=](const auto&) { return Reply{bytes, then, more, times, pause}; };
}
ScriptedServer::Handler redirects(const std::string& location) {
  return [=](const auto&) { return Reply::http(307, {{"Location", location}}, "elsewhere"); };
}

// As much of HTTP/2 as a server needs in order to break it.
namespace h2 {
enum Type : char { data, headers, rstStream = 3, settings, ping = 6, goAway, more = 9 };
constexpr char endStream = 1;
constexpr char endHeaders = 4;

std::string number(std::uint64_t value, int bytes = 4) {
  std::string text;
  while (bytes-- > 0) text += static_cast<char>(value >> bytes * 8 & 0xFF);
  return text;
}
std::string frame(Type type, char flags, std::uint32_t stream, const std::string& payload) {
  return number(payload.size(), 3) + std::string{type, flags} + number(stream) + payload;
}
const std::string hello = frame(settings, 0, 0, "");
const std::string status200 = "\x88";

std::string start(std::uint32_t stream) {
  return frame(headers, endHeaders, stream, status200);
}
std::string reply(std::uint32_t stream, const std::string& body) {
  return start(stream) + frame(data, endStream, stream, body);
}
using Frames = std::function<std::string(std::uint32_t stream)>;
ScriptedServer::Handler says(
    const Frames& frames, Reply::Then then = keepAlive,
    const Frames& more = [](auto) { return ""; }) {
  return [=](const ReceivedRequest& request) {
    if (!request.stream) return Reply::http(200, {}, "over HTTP/1.1");
    return Reply{hello + frames(request.stream), then, more(request.stream), Reply::endless};
  };
}
ScriptedServer::Handler resets(std::uint32_t reason) {
  return says([=](auto stream) { return frame(rstStream, 0, stream, number(reason)); });
}
}  // namespace h2

ScriptedServer::Handler answering(const Fault& fault) {
  return [handler = fault.handler](const ReceivedRequest& request) {
    if (request.body != "good") return handler(request);
    return request.stream ? Reply{h2::hello + h2::reply(request.stream, "good")}
                          : Reply::json(200, "good");
  };
}

std::vector<Fault> faultsInConnecting(const CertificateAuthority& authority,
                                      const std::filesystem::path& directory) {
  const auto shows = [](const char* what, Code code, Identity identity) {
    return Fault{what, kind(code), says(""), Greeting::tls, 20s, 2, std::move(identity)};
  };
  const auto selfSigned = [&] {
    std::filesystem::create_directories(directory);
    const auto another = CertificateAuthority::openOrCreate(directory);
    std::ifstream key(directory / "ca-key.pem");
    return Identity{another.certificatePEM(), {std::istreambuf_iterator<char>(key), {}}};
  };
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const std::string any = "*.service.example";
  const auto stranger = CertificateAuthority::create();
  const auto noTLS = kind(Code::secureConnectionFailed);
  const auto late = kind(Code::timedOut);
  using enum URLError::Code;
  return {
      {"refused", kind(cannotConnectToHost), says(""), Greeting::refusal},
      {"closed on accept", noTLS, says(""), Greeting::close},
      {"reset in the handshake", noTLS, says(""), Greeting::reset},
      {"no TLS", noTLS, says(""), Greeting::garbage},
      {"silence instead of TLS", late, says(""), Greeting::silence, soon},
      {"TLS 1.1", noTLS, says(""), Greeting::tls11},
      {"TLS 1.2", "200 whole", says(whole, keepAlive), Greeting::tls12},
      shows("another's", serverCertificateUntrusted,
            authority.issue({"other.example", "127.0.0.1"})),
      shows("unknown authority", serverCertificateHasUnknownRoot, stranger.issue({any})),
      shows("self-signed", serverCertificateHasUnknownRoot, selfSigned()),
      shows("expired", serverCertificateHasBadDate, authority.issue({any}, {now - 48h, now - 24h})),
      shows("early", serverCertificateNotYetValid, authority.issue({any}, {now + 24h, now + 48h})),
  };
}

std::vector<Fault> faultsInReplies() {
  const auto lost = kind(Code::networkConnectionLost);
  const auto insecure = kind(Code::insecureConnection);
  const auto late = kind(Code::timedOut);
  const auto tooLarge = kind(Code::dataLengthExceedsMaximum);
  const auto unreadable = kind(Code::cannotParseResponse);
  const auto badURL = kind(Code::badURL);
  const auto tls = Greeting::tls;
  const auto impatient = Greeting::impatient;
  const std::string many(64 << 10, 'x');
  std::vector<Fault> faults{
      {"silence", late, says("", hold), tls, soon},
      {"half a head, silence", late, says("HTTP/1.1 200 OK\r\nA: b", hold), tls, soon},
      {"half a body, silence", late, says(ok(length(9), "half"), hold), tls, soon},
      {"slowly", "200 xxxxxxxxxxxx", says(ok(length(12)), keepAlive, "x", 12, 200ms), tls, 2s},
      {"too slowly", late, says(ok(length(12)), close, "x", 12, 1s), tls, soon},
      {"bytes at random", unreadable, says("\x01\x02\xFF\xFE\r\n\r\n")},
      {"a reply to nothing", "200 whole", says(whole, close), Greeting::talkative},
      // Too much of it.
      {"16 MiB", "200 16777216 bytes", says(ok(length(16 << 20)), keepAlive, many, 256)},
      {"a byte more", tooLarge, says(ok(length((16 << 20) + 1), "x"), keepAlive, many, 256)},
      {"a byte more, to the end", tooLarge, says(ok("", "x"), close, many, 256)},
      {"an endless body", tooLarge, says(ok(""), close, many)},
      {"endless chunks", tooLarge, says(ok(chunked), close, "10000\r\n" + many + "\r\n")},
      {"an endless chunk size", late, says(ok(chunked, "5;"), close, many), tls, soon},
      {"endless trailers", tooLarge, says(ok(chunked, "0\r\n"), close, repeated("A: b\r\n", 999))},
      {"an endless body before a redirect", tooLarge,
       says("HTTP/1.1 307 \r\nLocation: /\r\n" + chunked + "\r\n", close,
            "10000\r\n" + many + "\r\n")},
      {"an endless status line", tooLarge, says("HTTP/1.1 200 ", close, many)},
      {"an endless header", tooLarge, says("HTTP/1.1 200 OK\r\nA: ", close, many)},
      {"endless headers", tooLarge, says("HTTP/1.1 200 OK\r\n", close, repeated("A: b\r\n", 999))},
      {"30000 headers", tooLarge, says(ok(repeated("Header: bomb\r\n", 30'000), "whole"))},
      {"a header of 64 KiB", "200 whole", says(ok("A: " + many + "\r\n" + length(5), "whole"))},
      {"50 replies on the way", "200 whole",
       says(repeated("HTTP/1.1 100 Go\r\n\r\nHTTP/1.1 103 Hints\r\nLink: </>\r\n\r\n", 25) +
            whole)},
      {"endless replies on the way", tooLarge,
       says("", close, repeated("HTTP/1.1 100 Go\r\n\r\n", 99))},
      {"endless hints", tooLarge,
       says("", close, repeated("HTTP/1.1 103 Hints\r\nLink: </>\r\n\r\n", 99))},
      // Compressed.
      {"gzip", "200 whole", says(ok(length(zipped.size()) + gzip, zipped), keepAlive)},
      {"no gzip", unreadable, says(ok(length(4) + gzip, "abcd"), keepAlive)},
      // curl takes it for whole; what reads JSON won't.
      {"half a gzip", "200 wh", says(ok(length(17) + gzip, zipped.substr(0, 17)), keepAlive)},
      {"a wrong checksum", unreadable,
       says(ok(length(28) + gzip, zipped.substr(0, 24) + "evil"), keepAlive)},
      {"gzip and more", unreadable, says(ok(length(32) + gzip, zipped + "evil"), keepAlive)},
      {"a gzip bomb", tooLarge,
       says(ok(length(11 + 13 * 50'000) + gzip, gzipHeader + aZero), keepAlive,
            repeated(manyZeros, 500), 100)},
      {"endless gzip of nothing", tooLarge,
       says(ok(gzip, gzipHeader), close, repeated("\0\0\0\xff\xff"s, 9999))},
      {"an unknown coding", unreadable, says(ok(length(5) + "Content-Encoding: x\r\n", "whole"))},
      {"too many codings", unreadable,
       says(ok("Content-Encoding: gzip, gzip, gzip, gzip, gzip, gzip\r\n", "whole"))},
      // Redirects.
      {"a redirect to http", insecure, redirects("http://service.example/")},
      {"a redirect to a file", insecure, redirects("file:///etc/passwd")},
      {"a redirect in circles", kind(Code::httpTooManyRedirects), redirects("/")},
      // A name with so long a part is looked up nowhere.
      {"a redirect to nobody", kind(Code::cannotFindHost),
       redirects("https://" + std::string(70, 'x') + ".example/")},
      {"a redirect to no port", badURL, redirects("https://service.example:99999/")},
      {"a redirect to nonsense", badURL, redirects("https://[::x/")},
      {"a redirect to nowhere", "307 elsewhere", redirects("")},
      // Answered before the request is read.
      {"413 early", "413 ", says("HTTP/1.1 413 \r\nContent-Length: 0\r\n\r\n", hold), impatient,
       20s, 8 << 20},
      {"reset early", lost, says("", reset), impatient, 20s, 8 << 20},
  };
  // What a server says is all there is to these; each begins with the fault and its outcome.
  const std::map<std::string, std::string> errors{{"networkConnectionLost", lost},
                                                  {"dataLengthExceedsMaximum", tooLarge},
                                                  {"cannotParseResponse", unreadable}};
  const std::map<std::string, Reply::Then> endings{
      {"keepAlive", keepAlive}, {"cut", cut}, {"reset", reset}};
  for (const auto& row : test::vectors("replies.json")) {
    const auto error = errors.find(row[1]);
    faults.push_back({row[0], error == errors.end() ? std::string(row[1]) : error->second,
                      says(row[2], row.size() > 3 ? endings.at(row[3]) : close)});
  }
  return faults;
}

std::vector<Fault> faultsOverHTTP2() {
  using namespace h2;
  const auto lost = kind(Code::networkConnectionLost);
  const auto late = kind(Code::timedOut);
  const auto tooLarge = kind(Code::dataLengthExceedsMaximum);
  const auto over = Greeting::http2;
  const auto nothing = [](auto) { return ""s; };
  const auto half = [](auto stream) { return start(stream) + frame(data, 0, stream, "half"); };
  const auto leaves = [](std::uint32_t reason) {
    return h2::says([=](auto) { return frame(goAway, 0, 0, number(0) + number(reason)); }, close);
  };
  const auto body = [](std::size_t size) {
    return [=](auto stream) { return frame(data, 0, stream, std::string(size, 'x')); };
  };
  const auto answers = [](std::string headerBlock) {
    return h2::says(
        [=](auto stream) { return frame(headers, endHeaders | endStream, stream, headerBlock); });
  };
  return {
      {"a reply", "200 whole", h2::says([](auto stream) { return reply(stream, "whole"); }), over},
      {"closed", lost, says("", close), over},
      {"reset", lost, says("", reset), over},
      {"silence", late, h2::says(nothing, hold), over, soon},
      {"half a body", lost, h2::says(half, close), over},
      {"half a body, silence", late, h2::says(half, hold), over, soon},
      {"half a body, given up", lost,
       h2::says([=](auto stream) { return half(stream) + frame(rstStream, 0, stream, number(2)); }),
       over},
      {"HTTP/1.1 instead", lost, says(whole), over},
      {"goodbye", lost, leaves(0), over},
      {"goodbye for a fault", lost, leaves(2), over},
      {"given up", lost, resets(2), over},
      {"refused", lost, resets(7), over},
      {"only over HTTP/1.1", "200 over HTTP/1.1", resets(13), over},
      {"broken headers", lost, answers("\xff\xff\xff\xff\xff\xff\xff\xff"), over},
      {"no status", lost, answers(""), over},
      {"a body before its headers", lost, h2::says(body(5)), over},
      {"a stream nobody opened", lost, h2::says([](auto) { return reply(7777, "whole"); }), over},
      {"a frame too large", lost, h2::says(body(64 << 10)), over},
      {"an endless body", tooLarge, h2::says(start, close, body(16 << 10)), over},
      {"settings without end", lost,
       h2::says(nothing, close, [](auto) { return repeated(hello, 99); }), over},
      {"pings without end", lost,
       h2::says(nothing, close, [](auto) { return repeated(frame(ping, 0, 0, "12345678"), 99); }),
       over},
      {"headers without end", lost,
       h2::says([](auto stream) { return frame(headers, 0, stream, status200); }, close,
                [](auto stream) { return frame(more, 0, stream, "\x88"); }),
       over},
  };
}

// The most memory that this process has had since the last time that this was reset, in bytes.
long memoryPeak() {
  std::ifstream status("/proc/self/status");
  constexpr std::string_view peak = "VmHWM:";
  std::string line;
  while (std::getline(status, line) && !line.starts_with(peak)) continue;
  return std::stol(line.substr(peak.size())) << 10;
}
long resetMemoryPeak() {
  std::ofstream("/proc/self/clear_refs") << 5;
  return memoryPeak();
}
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long maximumGrowth = 1 << 30;  // sanitizers keep what is freed
#else
constexpr long maximumGrowth = 64 << 20;  // a string of 16 MiB that grows, and some
#endif

class Faults : public Transport {
 protected:
  void provoke(const std::vector<Fault>& faults) const {
    for (const auto& fault : faults) {
      SCOPED_TRACE(fault.what);
      ScriptedServer server(fault.identity.value_or(identity), answering(fault), fault.greeting);
      URLSession::route(at, {server.port(), caFile});
      const long before = resetMemoryPeak();
      const std::string body(fault.bodySize, 'x');
      EXPECT_EQ(kind(post(address("/", at), body, fault.timeout)), fault.outcome);
      EXPECT_LT(memoryPeak() - before, maximumGrowth);
      // The same server has come to its senses; the connection is the same where it was kept.
      if (fault.greeting != Greeting::http2) server.greet(identity, Greeting::tls);
      EXPECT_EQ(kind(post(address("/", at), "good")), "200 good");
    }
  }
  const std::string at = "faults.service.example";
};

TEST_F(Faults, InConnecting) {
  provoke(faultsInConnecting(authority, directory.path() / "self"));
}

TEST_F(Faults, InReplies) {
  provoke(faultsInReplies());
}

TEST_F(Faults, OverHTTP2) {
  provoke(faultsOverHTTP2());
}

// Faults and good requests side by side, at HTTP/1.1 also on the same connections.
using EnduranceTransport = Faults;

TEST_F(EnduranceTransport, EachOfManyRequestsHasItsOutcome) {
  std::vector<Fault> faults = faultsInConnecting(authority, directory.path() / "self");
  std::ranges::move(faultsInReplies(), std::back_inserter(faults));
  std::ranges::move(faultsOverHTTP2(), std::back_inserter(faults));
  constexpr int batch = 100;  // each with servers of its own, whose descriptors go with them
  constexpr int atOnce = 6;
  const auto seed = std::random_device()();
  std::mt19937 random(seed);
  int begun = 0, good = 0, ended = 0;
  std::vector<int> outcomes;
  const auto started = std::chrono::steady_clock::now();

  for (const int batches = rounds(1, 50); begun < batches * batch && !HasFailure();) {
    std::vector<std::unique_ptr<ScriptedServer>> servers;
    for (const auto& fault : faults) {
      servers.push_back(std::make_unique<ScriptedServer>(fault.identity.value_or(identity),
                                                         answering(fault), fault.greeting));
    }
    const int end = begun + batch;
    outcomes.resize(static_cast<std::size_t>(end));
    const std::function<void()> next = [&] {
      if (begun == end) return;
      const auto which = random() % faults.size();
      const Fault& fault = faults[which];
      const bool isHTTP2 = fault.greeting == Greeting::http2;
      const bool isGood = fault.greeting == Greeting::tls && !fault.identity && random() % 2;
      const auto number = static_cast<std::size_t>(begun++);
      good += isGood;
      // What befalls a connection of HTTP/2 befalls all who share it.
      const std::string to = std::to_string(which) + (isHTTP2 ? "-" + std::to_string(number) : "") +
                             ".service.example";
      URLSession::route(to, {servers[which]->port(), caFile});
      start(request(address("/", to), isGood ? "good" : std::string(fault.bodySize, 'x'),
                    isGood ? 20s : fault.timeout),
            [&, number, isGood](auto result) {
              EXPECT_EQ(kind(result), isGood ? "200 good" : fault.outcome)
                  << fault.what << ", seed " << seed << ", request " << number;
              EXPECT_EQ(++outcomes[number], 1);
              ++ended;
              next();
            });
    };
    for (int i = 0; i < atOnce; ++i) next();
    for (int i = end - batch; i < end; ++i) ASSERT_TRUE(drainUntil([&] { return ended > i; }));
  }
  std::printf("%d requests, %d of them good, %d at once, seed %u: %d outcomes in %.0f s\n", begun,
              good, atOnce, seed, ended, test::secondsSince(started));
}

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

TEST_F(Transport, EveryReplyOnTheWayStartsTheTimerAnew) {
  // What is measured is time itself: five replies, 400 ms apart, under a timer of one second.
  const auto server = serve([](const ReceivedRequest& request) {
    std::this_thread::sleep_for(400ms);
    const auto hop = request.target.size();
    return hop == 5 ? Reply::json(200, "")
                    : Reply::http(307, {{"Location", "/" + std::string(hop, 'x')}});
  });
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(kind(post(address(), "{}", 1s)), "200 ");
  EXPECT_GE(test::secondsSince(started), 2);
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

TEST_F(Transport, SendsAgainOverEveryStaleConnection) {
  const auto server = serve([](const ReceivedRequest& request) {
    auto reply = Reply::json(200, request.body);
    reply.then = close;
    return reply;
  });
  for (int i = 0; i < 24; ++i) ASSERT_EQ(kind(post(address(), "good")), "200 good") << i;
}

// A service may be many machines, of which not all know HTTP/2.
TEST_F(Transport, NoRequestJoinsAConnectionInUse) {
  std::latch release(1);
  ScriptedServer server(identity, [&](const ReceivedRequest& request) {
    if (request.body == "held") release.wait();
    return request.stream ? Reply{h2::hello + h2::reply(request.stream, "over HTTP/2")}
                          : Reply::json(200, request.body);
  });
  URLSession::route(host, {server.port(), caFile});
  std::string held;
  start(request(address(), "held"), [&](auto result) { held = kind(result); });
  EXPECT_EQ(server.waitForRequest(0).body, "held");
  server.greet(identity, Greeting::http2);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(kind(post(address(), "", 2s)), "200 over HTTP/2");
  EXPECT_EQ(server.connections(), 2U);
  release.count_down();
  EXPECT_TRUE(drainUntil([&] { return !held.empty(); }));
  EXPECT_EQ(held, "200 held");
}

TEST_F(Transport, TrustsAnAuthorityForItsHostAlone) {
  const ScriptedServer server(authority.issue({"127.0.0.1"}), [](const auto&) { return Reply(); });
  URLSession::route(host, {server.port(), caFile});
  const auto result = post("https://127.0.0.1:" + std::to_string(server.port()) + "/");
  EXPECT_EQ(kind(result), kind(Code::serverCertificateHasUnknownRoot));
  EXPECT_NE(result.error().as<URLError>()->underlying, "") << "what curl said";
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(Transport, FollowsRedirectsAsHTTPSays) {
  const auto server = serve([](const ReceivedRequest& request) {
    if (request.target == "/end") return Reply::json(200, request.method + " " + request.body);
    const bool loops = request.target == "/loop";
    return Reply::http(loops ? 307 : std::stoi(request.target.substr(1)),
                       {{"Location", loops ? "/loop" : "/end"}});
  });
  for (const int status : {301, 302, 303, 307, 308})
    EXPECT_EQ(kind(post(address("/" + std::to_string(status)))),
              status < 307 ? "200 GET " : "200 POST {}");
  EXPECT_EQ(kind(post("http://127.0.0.1/")), kind(Code::insecureConnection));
  const auto before = server->requests().size();
  EXPECT_EQ(kind(post(address("/loop"))), kind(Code::httpTooManyRedirects));
  EXPECT_EQ(server->requests().size() - before, 21U) << "20 are followed";
}

}  // namespace
}  // namespace quorva::platform
