// A host application in one file: it starts the library, makes links in both ways, resolves them,
// opens one, and shows what refusals look like. `./run demo` runs it against the local service.

#include <QuorvaSDK/LocalService.h>
#include <QuorvaSDK/QuorvaSDK.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <utility>

using namespace quorva;

namespace {

int exitCode = EXIT_FAILURE;

void finish(const std::optional<Error>& error = {}) {
  if (error) std::fprintf(stderr, "quickstart: %s\n", error->what());
  exitCode = error ? EXIT_FAILURE : EXIT_SUCCESS;
  MainQueue::stop();
}

void say(std::string_view what, std::string_view text) {
  std::printf("%-24.*s %.*s\n", int(what.size()), what.data(), int(text.size()), text.data());
}

// Makes a link that the service is to refuse with `expected`.
Task<void> refuse(std::string_view what, QVDynamicLinkBuilder link, QuorvaError::Case expected) {
  const Result<std::optional<std::string>> answer =
      co_await Quorva::createDynamicLink(link).result();
  if (answer) throw Error(QuorvaError(QuorvaError::invalidResponse));
  const auto* error = answer.error().as<QuorvaError>();
  if (!error || error->which != expected) throw answer.error();
  say(what, error->errorDescription());
}

// With coroutines: straight code, and errors are thrown.
Task<void> tour(QVDynamicLinkBuilder spring, std::string shortLink) {
  const QVDynamicLinkBuilder unnamed("https://shop.example/boots", "go.shop.example");
  const std::optional<std::string> random = co_await Quorva::createDynamicLink(unnamed);
  say("random path:", random.value_or("none"));

  co_await refuse("the same path again:", spring, QuorvaError::duplicatePath);
  const QVDynamicLinkBuilder nowhere("https://shop.example/boots", "  ");
  co_await refuse("an empty domain:", nowhere, QuorvaError::missingKeys);

  const ResolvedLink resolved = co_await Quorva::resolveDynamicLink(shortLink);
  say("resolved:", resolved.link().value().absoluteString());
  const Result<ResolvedLink> unknown =
      co_await Quorva::resolveDynamicLink(shortLink + "-sale").result();
  say("an unknown link:", unknown ? "resolved" : unknown.error().localizedDescription());

  // As when the system hands the application a link that was tapped; the delegate hears more.
  Quorva::handleLink(resolved.originalURL().value());
}

void takeTour() {
  const auto spring = QVDynamicLinkBuilder("https://shop.example/shoes", "go.shop.example")
                          .setSelectedPath("spring")
                          .setSocialParameters("Shoes", "New in", "https://shop.example/shoes.png")
                          .setUTMParameters("newsletter", "email", "spring")
                          .build();
  // With a completion handler: called once, later, on this thread.
  Quorva::createDynamicLink(
      spring, [spring](std::optional<std::string> shortLink, std::optional<Error> error) {
        if (error) return finish(error);
        say("chosen path:", *shortLink);
        start(tour(spring, *shortLink), [](Result<void> toured) {
          if (!toured) finish(toured.error());
        });
      });
}

class Links : public QuorvaDelegate {
 public:
  explicit Links(std::function<void()> begin) : begin_(std::move(begin)) {}

  void quorvaDidInitialize(const QVConfiguration&) override { begin_(); }
  void quorvaDidFailToInitialize(const Error& error) override { finish(error); }

  void quorvaDidResolveDeepLink(const URL& destination, const Metadata& metadata) override {
    const bool isDeferred = std::get<bool>(metadata.at("isDeferred"));
    say(isDeferred ? "tapped before install:" : "opened with:",
        std::get<std::string>(metadata.at("originalURL")));
    say("  leads to:", destination.absoluteString());
    const std::time_t at = Date::clock::to_time_t(std::get<Date>(metadata.at("resolvedAt")));
    std::array<char, sizeof "2000-01-01T00:00:00Z"> text{};
    std::strftime(text.data(), text.size(), "%FT%TZ", std::gmtime(&at));
    say("  resolved at:", text.data());
    finish();
  }
  void quorvaDidFailToResolveDeepLink(const std::optional<URL>&, const Error& error) override {
    finish(error);
  }

 private:
  std::function<void()> begin_;
};

// What the local service printed, and who to be.
struct Arguments {
  std::uint16_t port = 0;
  const char* caFile = nullptr;
  std::optional<std::string> application;
  std::optional<URL> link;

  static std::optional<Arguments> parse(int argc, char** argv) {
    const auto option = [&](int i, std::string_view name) {
      return i + 1 < argc && argv[i] == name;
    };
    Arguments arguments;
    if (!option(1, "--port") || !option(3, "--ca")) return {};
    const std::string_view port = argv[2];
    const char* const end = port.data() + port.size();
    const auto read = std::from_chars(port.data(), end, arguments.port);
    if (read.ec != std::errc() || read.ptr != end) return {};
    arguments.caFile = argv[4];
    if (argc == 5) return arguments;
    if (!option(5, "--application")) return {};
    arguments.application = argv[6];
    if (argc == 7) return arguments;
    arguments.link = URL::parse(argv[7]);
    return argc == 8 && arguments.link ? std::optional(arguments) : std::nullopt;
  }
};

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = Arguments::parse(argc, argv);
  if (!arguments) {
    std::fputs(
        "usage: quickstart --port N --ca FILE [--application ID [LINK]]\n"
        "  N and FILE as the local service prints them. Tours the library; or runs as another\n"
        "  application, opened with LINK or by hand, until it has heard where a link leads.\n",
        stderr);
    return 2;
  }
  useLocalService(arguments->port, arguments->caFile);
  Bundle::setMain({.identifier = arguments->application.value_or("com.example.quickstart"),
                   .infoDictionary = {{"CFBundleShortVersionString", "1.0"}}});

  const auto begin = [&] {
    if (!arguments->application) takeTour();
    if (arguments->link) Quorva::handleLink(*arguments->link);
  };
  Quorva::initialize(
      QVConfiguration("qk_quickstart", /*debug=*/true, std::make_shared<Links>(begin)));
  MainQueue::run();
  return exitCode;
}
