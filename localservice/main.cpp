#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "localservice/Certificates.h"
#include "localservice/Server.h"
#include "localservice/Service.h"
#include "localservice/Store.h"

namespace {

constexpr const char* usage =
    R"(Usage: quorva-localservice --state DIR [OPTION]...

Serves short links on 127.0.0.1, to develop and test against, until SIGINT or SIGTERM: to the
library over HTTPS, and over plain HTTP to browsers, that open a link, or the service's own page
with what applications said and what is to go wrong. Requests are logged to the standard error.

  --state DIR        where devices, links, taps, requests and the certificate authority are kept
  --port N           the port for the library; 0, or one not given, is any that is free
  --http-port N      the port for browsers, likewise
  --host NAME        the host the certificate is for besides localhost and 127.0.0.1,
                     )" QUORVA_SERVICE_HOST R"( if not given
  --app-scheme NAME  the scheme of links that open the application; if given, pages offer one
  --refuse-key KEY   an API key to refuse; may be given more than once
  --print-ready      print, as soon as requests can come, one line of JSON instead of two of text:
                     the addresses of "service" and "page", and the path of "ca"
  --help             print this and end
)";

constexpr int badArgumentsStatus = 2;

struct BadArguments : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Arguments {
  std::filesystem::path state;
  localservice::Ports ports;
  std::string host = QUORVA_SERVICE_HOST;
  std::string appScheme;
  std::set<std::string> refusedKeys;
  bool printsReady = false;
};

std::uint16_t parsePort(std::string_view option, std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.begin(), text.end(), port);
  if (error != std::errc() || end != text.end()) {
    throw BadArguments(std::string(option) + " must be a number from 0 to 65535");
  }
  return port;
}

std::string parseScheme(const std::string& text) {
  if (!std::regex_match(text, std::regex("[A-Za-z][-+.A-Za-z0-9]*"))) {
    throw BadArguments("--app-scheme must be a URL's scheme, without a colon");
  }
  return text;
}

Arguments parse(std::span<char*> words) {
  Arguments arguments;
  const std::map<std::string_view, std::function<void(const char*)>> options{
      {"--state", [&](const char* value) { arguments.state = value; }},
      {"--port", [&](const char* value) { arguments.ports.https = parsePort("--port", value); }},
      {"--http-port",
       [&](const char* value) { arguments.ports.http = parsePort("--http-port", value); }},
      {"--host", [&](const char* value) { arguments.host = value; }},
      {"--app-scheme", [&](const char* value) { arguments.appScheme = parseScheme(value); }},
      {"--refuse-key", [&](const char* value) { arguments.refusedKeys.insert(value); }}};
  while (!words.empty()) {
    if (words[0] == std::string_view("--print-ready")) {
      arguments.printsReady = true;
      words = words.subspan(1);
      continue;
    }
    const auto option = options.find(words[0]);
    if (option == options.end()) throw BadArguments(std::string(words[0]) + " is unknown");
    if (words.size() == 1) throw BadArguments(std::string(words[0]) + " needs a value");
    option->second(words[1]);
    words = words.subspan(2);
  }
  if (arguments.state.empty()) throw BadArguments("--state is missing");
  return arguments;
}

void announce(localservice::Ports bound, const std::string& authority, bool asJSON) {
  const std::string address = "://127.0.0.1:";
  const std::string service = "https" + address + std::to_string(bound.https);
  const std::string page = "http" + address + std::to_string(bound.http) + '/';
  if (asJSON) {
    const nlohmann::json line{{"service", service}, {"page", page}, {"ca", authority}};
    std::puts(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  } else {
    std::printf(
        "quorva-localservice listening on %s (certificate authority: %s)\n"
        "Its page, and links as /DOMAIN/PATH, are at %s\n",
        service.c_str(), authority.c_str(), page.c_str());
  }
}

void run(Arguments arguments, const sigset_t& endSignals) {
  std::error_code error;
  std::filesystem::create_directories(arguments.state, error);
  if (error) {
    throw std::runtime_error(arguments.state.string() + " can't be made: " + error.message());
  }
  localservice::Store store(arguments.state / "service.sqlite");
  const auto authority = localservice::CertificateAuthority::openOrCreate(arguments.state);
  const localservice::Service service{store, std::move(arguments.refusedKeys),
                                      std::move(arguments.appScheme)};
  localservice::serve(service, authority.issue({"localhost", "127.0.0.1", arguments.host}),
                      arguments.ports, [&](localservice::Ports bound) {
                        announce(bound, std::filesystem::absolute(arguments.state / "ca.pem"),
                                 arguments.printsReady);
                        std::fflush(stdout);
                        int signal = 0;
                        sigwait(&endSignals, &signal);
                      });
}

}  // namespace

int main(int count, char** values) {
  // Blocked from here on and in every thread, they wait until they are asked for.
  sigset_t endSignals;
  sigemptyset(&endSignals);
  sigaddset(&endSignals, SIGINT);
  sigaddset(&endSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
  ::umask(S_IRWXG | S_IRWXO);

  const std::span words = std::span(values, static_cast<std::size_t>(count)).subspan(1);
  try {
    if (std::ranges::find(words, std::string_view("--help")) != words.end()) {
      std::fputs(usage, stdout);
    } else {
      run(parse(words), endSignals);
    }
    return EXIT_SUCCESS;
  } catch (const BadArguments& error) {
    std::fprintf(stderr, "quorva-localservice: %s; see --help\n", error.what());
    return badArgumentsStatus;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "quorva-localservice: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
