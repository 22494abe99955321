// A host application in one file: it starts the library, makes links in both ways, and shows what a
// refusal looks like. `./run demo` runs it against the local service.

#include <QuorvaSDK/LocalService.h>
#include <QuorvaSDK/QuorvaSDK.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>

using namespace quorva;

namespace {

int exitCode = EXIT_FAILURE;

void finish(const std::optional<Error>& error) {
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
Task<void> tour(QVDynamicLinkBuilder spring) {
  const QVDynamicLinkBuilder unnamed("https://shop.example/boots", "go.shop.example");
  const std::optional<std::string> random = co_await Quorva::createDynamicLink(unnamed);
  say("random path:", random.value_or("none"));

  co_await refuse("the same path again:", spring, QuorvaError::duplicatePath);
  const QVDynamicLinkBuilder nowhere("https://shop.example/boots", "  ");
  co_await refuse("an empty domain:", nowhere, QuorvaError::missingKeys);
}

void createLinks() {
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
        start(tour(spring), [](Result<void> toured) {
          finish(toured ? std::nullopt : std::optional(toured.error()));
        });
      });
}

struct Links : QuorvaDelegate {
  void quorvaDidInitialize(const QVConfiguration&) override { createLinks(); }
  void quorvaDidFailToInitialize(const Error& error) override { finish(error); }
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view port = argc == 5 ? argv[2] : "";
  std::uint16_t number = 0;
  const char* const end = port.data() + port.size();
  const auto read = std::from_chars(port.data(), end, number);
  if (read.ec != std::errc() || read.ptr != end || std::string_view(argv[1]) != "--port" ||
      std::string_view(argv[3]) != "--ca") {
    std::fputs("usage: quickstart --port N --ca FILE   (as the local service prints them)\n",
               stderr);
    return 2;
  }
  useLocalService(number, argv[4]);
  Bundle::setMain({.identifier = "com.example.quickstart",
                   .infoDictionary = {{"CFBundleShortVersionString", "1.0"}}});

  Quorva::initialize(QVConfiguration("qk_quickstart", /*debug=*/true, std::make_shared<Links>()));
  MainQueue::run();
  return exitCode;
}
