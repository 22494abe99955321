// What a host sees: initialization, link creation, the delegate, and the lines that tell of them.

#include <algorithm>
#include <thread>

#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/QVNetworkManager.h"
#include "tests/ServiceFixture.h"

namespace quorva {
namespace {

using test::Console;
using test::drainUntil;
using test::outcome;
using test::Reply;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

// Writes down what it's told.
struct Recorder : QuorvaDelegate {
  void quorvaDidInitialize(const QVConfiguration& config) override {
    heard.push_back("did:" + config.apiKey);
    then();
  }
  void quorvaDidFailToInitialize(const Error& error) override { heard.push_back(error.what()); }
  void quorvaDidResolveDeepLink(const URL& destination, const Metadata& metadata) override {
    EXPECT_EQ(metadata.size(), 3U);
    const auto age = std::chrono::system_clock::now() - std::get<Date>(metadata.at("resolvedAt"));
    EXPECT_TRUE(age >= 0s && age < 20s);
    heard.push_back((std::get<bool>(metadata.at("isDeferred")) ? "deferred " : "opened ") +
                    std::get<std::string>(metadata.at("originalURL")) + " -> " +
                    destination.absoluteString());
  }
  void quorvaDidFailToResolveDeepLink(const std::optional<URL>& link, const Error& error) override {
    heard.push_back((link ? link->absoluteString() : "no link") + ": " + error.what());
    then();
  }

  Lines heard;
  std::function<void()> then = [] {};
};

const std::string initialized =
    "[✅ SUCCESS] [QuorvaSDK] initialize(config:): Quorva SDK Intialized!";
const std::string pinged = "[✅ SUCCESS] [QVNetworkManager] devicePing(): SDK ping successful";
const std::string blankKey =
    "[❌ ERROR] [QuorvaSDK] initialize(config:): Failed to initialize Quorva with a valid API key";

class Facade : public test::ServiceFixture {
 protected:
  // What the completion form gives: the link, or the kind of the error.
  static std::string create(const QVDynamicLinkBuilder& link) {
    std::optional<std::string> given;
    Quorva::createDynamicLink(link, [&](auto shortLink, auto error) {
      given = shortLink.value_or("") + (error ? kind(*error) : "");
    });
    EXPECT_FALSE(given) << "called inside the call";
    EXPECT_TRUE(drainUntil([&] { return given.has_value(); }));
    return given.value();
  }

  const std::shared_ptr<Recorder> delegate = std::make_shared<Recorder>();
  const QVDynamicLinkBuilder link{"https://d", "go"};
};

TEST_F(Facade, BeforeInitializationOneFormRefusesAndTheOtherSends) {
  const auto refused = outcome(Quorva::createDynamicLink(link));
  EXPECT_EQ(refused.error().localizedDescription(), "SDK has not been initialized");
  EXPECT_TRUE(server.requests().empty());
  store("qk", "device");
  EXPECT_EQ(create(link), "https://go/x");
}

TEST_F(Facade, FirstInitializationGetsTheIdentifierAndLaterOnesFindIt) {
  Console console;
  Quorva::initialize(QVConfiguration("  qk\t", true, delegate));
  EXPECT_TRUE(delegate->heard.empty());
  EXPECT_EQ(StorageKeys::anonymousId.get(), std::nullopt);
  EXPECT_EQ(console.waitForLines(2), (Lines{initialized, pinged}));
  EXPECT_EQ(delegate->heard, Lines{"did:  qk\t"});
  EXPECT_EQ(StorageKeys::anonymousId.get(), "u-1");
  EXPECT_EQ(nlohmann::json::parse(sent("retrieveDeviceId").at(0).body).at("api_key"), "  qk\t");
  EXPECT_EQ(nlohmann::json::parse(sent("device_ping").at(0).body).at("device_id"), "u-1");

  Quorva::initialize(QVConfiguration("other", false, delegate));
  EXPECT_EQ(delegate->heard.back(), "did:other") << "before initialize returns";
  EXPECT_EQ(console.waitForLines(4).size(), 4U) << "debugging stays on";
  EXPECT_EQ(sent("retrieveDeviceId").size(), 1U);
  EXPECT_EQ(StorageKeys::apiKey.get(), "other");
}

TEST_F(Facade, AnEmptyIdentifierIsOneTooAndNothingIsPrintedWithoutDebugging) {
  store(std::nullopt, "");
  Console console;
  Quorva::initialize(QVConfiguration("", false, delegate));
  Quorva::initialize(QVConfiguration("qk", false, delegate));
  EXPECT_EQ(delegate->heard, Lines{"did:qk"});
  answer("create_link", 500, "");
  EXPECT_EQ(create(link), kind(URLError::Code::badServerResponse));
  EXPECT_TRUE(sent("retrieveDeviceId").empty());
  EXPECT_EQ(console.text(), "");
}

TEST_F(Facade, ABlankKeyIsLoggedAndChangesOnlyTheDelegate) {
  store("kept", std::nullopt);
  Console console;
  auto old = std::make_shared<Recorder>();
  const std::weak_ptr<Recorder> before = old;
  Quorva::initialize(QVConfiguration("", true, std::move(old)));
  EXPECT_FALSE(before.expired());
  Quorva::initialize(QVConfiguration(" \t\r\n\u00A0", false, delegate));
  EXPECT_TRUE(before.expired());
  EXPECT_EQ(console.waitForLines(2), (Lines{blankKey, blankKey}));
  EXPECT_TRUE(delegate->heard.empty());
  EXPECT_EQ(StorageKeys::apiKey.get(), "kept");
  EXPECT_TRUE(server.requests().empty());
  // It counts as initialized.
  EXPECT_EQ(kind(outcome(Quorva::createDynamicLink(link)).error()), kind(QuorvaError::missingKeys));
}

TEST_F(Facade, AFailedIdentityCallIsToldAndTriedAgainNextTime) {
  answer("retrieveDeviceId", 401, "{}");
  Console console;
  Quorva::initialize(QVConfiguration("qk", true, delegate));
  EXPECT_EQ(console.waitForLines(1), Lines{blankKey});
  EXPECT_EQ(delegate->heard, Lines{"Failed to initialize Quorva with a valid API key"});
  EXPECT_EQ(StorageKeys::apiKey.get(), "qk");
  EXPECT_TRUE(sent("device_ping").empty());
  EXPECT_TRUE(StorageKeys::firstLaunch.get()) << "a failed initialization doesn't count";

  // An answer without an identifier is a success, in which the question for a deferred link is
  // spent.
  answer("retrieveDeviceId", 200, "{}");
  Quorva::initialize(QVConfiguration("qk", true, delegate));
  EXPECT_TRUE(drainUntil([&] { return delegate->heard.size() == 3; }));
  EXPECT_EQ(delegate->heard.back(), "no link: Invalid response from server");
  EXPECT_FALSE(StorageKeys::firstLaunch.get());
  EXPECT_TRUE(sent("getAnyDeferredDeeplinks").empty());
  EXPECT_EQ(console.waitForLines(4).size(), 4U);
  Quorva::initialize(QVConfiguration("qk", true, nullptr));
  EXPECT_TRUE(drainUntil([&] { return sent("retrieveDeviceId").size() == 3; }));
}

TEST_F(Facade, InitializationsUnderWayTellTheDelegateOfThatMomentEvenIfItIsReplacedInTheCall) {
  const auto first = std::make_shared<Recorder>();
  auto second = std::make_shared<Recorder>();
  const std::weak_ptr<Recorder> replaced = second;
  Lines heardBySecond;
  second->then = [&] {
    Quorva::initialize(QVConfiguration("", false, delegate));
    heardBySecond = std::shared_ptr(replaced)->heard;
  };
  Quorva::initialize(QVConfiguration("a", false, first));
  Quorva::initialize(QVConfiguration("b", false, first));
  // Blank, so that no initialization under way keeps it alive.
  Quorva::initialize(QVConfiguration("", false, std::move(second)));
  EXPECT_TRUE(drainUntil([&] { return !delegate->heard.empty(); }));
  EXPECT_EQ((std::set{heardBySecond, delegate->heard}), (std::set{Lines{"did:a"}, Lines{"did:b"}}));
  EXPECT_TRUE(first->heard.empty() && replaced.expired());
  EXPECT_EQ(sent("retrieveDeviceId").size(), 2U);
}

TEST_F(Facade, InitializingElsewhereIsToldAndDoneOnTheApplicationsThread) {
  MainQueue::drain();
  testing::internal::CaptureStderr();
  std::jthread([&] { Quorva::initialize(QVConfiguration("qk", false, delegate)); }).join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "QuorvaSDK: Quorva::initialize was called on another thread than the application's\n");
  EXPECT_TRUE(delegate->heard.empty());
  EXPECT_TRUE(drainUntil([&] { return delegate->heard == Lines{"did:qk"}; }));
}

TEST_F(Facade, BothFormsReportInTheirOwnWords) {
  store("qk", "device");
  Console console;
  Quorva::initialize(QVConfiguration("qk", true, nullptr));
  Lines lines = console.waitForLines(2);
  const std::string created =
      "[✅ SUCCESS] [QuorvaSDK] createDynamicLink(for:): Successfully created dynamic link";
  const auto expectFailure = [&](const QVDynamicLinkBuilder& description, const Error& error) {
    EXPECT_EQ(create(description), kind(error));
    EXPECT_EQ(kind(outcome(Quorva::createDynamicLink(description)).error()), kind(error));
    for (const std::string form : {"createDynamicLink(for:completion:): Failed to create Link - ",
                                   "createDynamicLink(for:): Failed to create dynamic link: "})
      lines.push_back("[❌ ERROR] [QuorvaSDK] " + form + error.localizedDescription());
  };

  EXPECT_EQ(create(link), "https://go/x") << "and says nothing";
  EXPECT_EQ(outcome(Quorva::createDynamicLink(link)).value(), "https://go/x");
  lines.push_back(created);
  expectFailure(QVDynamicLinkBuilder("https://d", " "), QuorvaError::missing({"domain"}));
  answer("create_link", 400, R"({"detail":"it already exists"})");
  expectFailure(link, QuorvaError(QuorvaError::duplicatePath));

  answer("create_link", 200, "{}");
  EXPECT_EQ(create(link), kind(QuorvaError::invalidResponse)) << "and says nothing";
  EXPECT_EQ(outcome(Quorva::createDynamicLink(link)).value(), std::nullopt);
  lines.push_back(created);
  EXPECT_EQ(console.waitForLines(lines.size()), lines);
}

TEST_F(Facade, ALinkIsResolvedOnRequest) {
  const auto resolve = [](const std::string& text) {
    return outcome(Quorva::resolveDynamicLink(text));
  };
  for (const char* text : {"", " \n", "https://go/a b"})
    EXPECT_EQ(kind(resolve(text).error()), kind(QuorvaError::invalidURL)) << text;
  EXPECT_EQ(kind(resolve("https://go/x").error()), kind(QuorvaError::notInitialized));
  store("qk", "device");
  Console console;
  Quorva::initialize(QVConfiguration("qk", true, delegate));
  Lines lines = console.waitForLines(2);

  const std::string about = "[QuorvaSDK] resolveDynamicLink(from:): ";
  for (const std::string destination : {"https://d/1?a=b", "no URL", ""}) {
    answer("resolve", 200, R"({"destination_url":")" + destination + "\"}");
    const ResolvedLink resolved = resolve("\thttps://go/x ").value();
    EXPECT_EQ(resolved.link(), URL::parse(destination));
    EXPECT_EQ(resolved.originalURL(), URL::parse("https://go/x"));
    lines.push_back("[✅ SUCCESS] " + about + "Successfully resolved dynamic link: \thttps://go/x ");
  }
  answer("resolve", 404, "{}");
  EXPECT_EQ(kind(resolve("https://go/x").error()), kind(URLError::Code::badServerResponse));
  lines.push_back("[❌ ERROR] " + about +
                  "Failed to resolve dynamic link: There was a bad response from the server.");
  EXPECT_EQ(console.waitForLines(lines.size()), lines);
  EXPECT_EQ(delegate->heard, Lines{"did:qk"}) << "the delegate is not involved";
}

TEST_F(Facade, ALinkThatOpenedTheApplicationReachesTheDelegate) {
  const URL opened = URL::parse("shop:item?id=1").value();
  const std::string failed = "shop:item?id=1: Invalid response from server";
  store(std::nullopt, "device");
  QVLogger::isConsoleEnabled = true;
  Console console;
  Quorva::handleLink(opened);  // nobody is there to be told
  Lines lines{
      "[❌ ERROR] [QuorvaSDK] handleLink(_:): Failed to Handle Link - "
      "Failed to initialize Quorva with a valid API key"};
  EXPECT_EQ(console.waitForLines(1), lines);

  // The key that it needs is stored only behind it.
  answer("resolve", 200, R"({"destination_url":"https://d/1"})");
  Quorva::handleLink(opened);
  Quorva::initialize(QVConfiguration("qk", true, delegate));
  lines.insert(lines.end(), {initialized, pinged});
  EXPECT_EQ(console.waitForLines(3), lines);
  EXPECT_TRUE(drainUntil([&] { return delegate->heard.size() == 2; }));

  for (const char* unusable : {"{}", R"({"destination_url":"no URL"})"}) {
    answer("resolve", 200, unusable);
    const std::size_t before = delegate->heard.size();
    Quorva::handleLink(opened);
    EXPECT_EQ(delegate->heard.size(), before) << "called inside the call";
    EXPECT_TRUE(drainUntil([&] { return delegate->heard.size() > before; }));
  }
  useLocalService(test::unusedPort(), caFile);
  delegate->then = [&] { EXPECT_TRUE(console.text().ends_with("the server.\n")) << "log first"; };
  Quorva::handleLink(opened);
  lines.push_back(
      "[❌ ERROR] [QuorvaSDK] handleLink(_:): Failed to Handle Link - "
      "Could not connect to the server.");
  EXPECT_TRUE(drainUntil([&] { return delegate->heard.size() == 5; }));
  EXPECT_EQ(delegate->heard,
            (Lines{"did:qk", "opened shop:item?id=1 -> https://d/1", failed, failed, failed}));
  EXPECT_EQ(console.waitForLines(lines.size()), lines);
}

TEST_F(Facade, TheDeferredLinkArrivesOnceWhateverBecomesOfIt) {
  const std::string fetchFailed =
      "[❌ ERROR] [QuorvaSDK] getDeferredDeepLink(): Quorva DeepLink fetch failed: ";
  const std::string badResponse = "There was a bad response from the server.";
  const std::tuple<int, const char*, std::string> rows[] = {
      {200, R"({"match_found":true,"destination_url":"https://d","original_url":"o"})",
       "deferred o -> https://d"},
      {200, R"({"match_found":true,"destination_url":"d"})", "deferred  -> d"},
      {200, R"({"match_found":true,"original_url":"o"})", ""},
      {200, R"({"match_found":true,"destination_url":"no URL"})", ""},
      {200, R"({"match_found":false,"destination_url":"https://d"})", ""},
      {200, R"({"destination_url":"https://d"})", ""},
      {500, R"({"match_found":true,"destination_url":"https://d"})", "no link: " + badResponse}};
  store("qk", "device");
  for (const auto& [status, body, told] : rows) {
    Console console;
    answer("getAnyDeferredDeeplinks", status, body);
    StorageKeys::firstLaunch.set(true);
    const std::size_t asked = sent("getAnyDeferredDeeplinks").size();
    delegate->heard.clear();
    delegate->then = [&] {
      EXPECT_EQ(console.text().find("DeepLink fetch"), std::string::npos) << "the delegate first";
    };
    Quorva::initialize(QVConfiguration("qk", true, delegate));
    Quorva::initialize(QVConfiguration("qk", true, delegate));  // while the question is under way
    EXPECT_FALSE(StorageKeys::firstLaunch.get());
    Lines heard{"did:qk", "did:qk"};
    if (!told.empty()) heard.push_back(told);
    Lines lines{initialized, initialized, pinged, pinged};
    if (status != 200) lines.push_back(fetchFailed + badResponse);
    Lines printed = console.waitForLines(lines.size());
    std::ranges::sort(printed);  // the ways of the answers differ, and so their order
    std::ranges::sort(lines);
    EXPECT_EQ(printed, lines);
    EXPECT_TRUE(drainUntil([&] {
      return sent("getAnyDeferredDeeplinks").size() == asked + 1 &&
             delegate->heard.size() >= heard.size();
    }));
    // Whatever else came of the answer would come before this one's.
    EXPECT_TRUE(outcome(QVNetworkManager::retrieveDeviceId("qk")));
    EXPECT_EQ(delegate->heard, heard);
  }
}

TEST_F(Facade, NeitherKeyNorIdentifierIsEverSpoken) {
  store("Secret-key", "Secret-id");
  Console console;
  std::string spoken;
  const auto speak = [&](const Error& error) {
    const auto* wire = error.as<URLError>();
    spoken += error.what() + error.localizedDescription() + (wire ? wire->underlying : "");
  };
  const URL opened = URL::parse("https://go/x").value();
  const Reply replies[] = {Reply::json(200, R"({"uuid":"Secret-id"})"),
                           Reply::json(200, "no JSON"),
                           Reply::json(200, R"({"short_url":1,"destination_url":1,"uuid":1})"),
                           Reply::json(400, R"({"detail":"Secret-key already exists"})"),
                           Reply::json(401, "{}"),
                           Reply{"no HTTP", Reply::Then::close}};
  for (const auto& reply : replies) {
    for (const char* path :
         {"retrieveDeviceId", "device_ping", "create_link", "resolve", "getAnyDeferredDeeplinks"})
      answer(path, reply);
    StorageKeys::firstLaunch.set(true);
    Quorva::initialize(QVConfiguration("Secret-key", true, delegate));
    Quorva::handleLink(opened);
    if (const auto created = outcome(Quorva::createDynamicLink(link)); !created)
      speak(created.error());
    if (const auto resolved = outcome(Quorva::resolveDynamicLink("https://go/x")); !resolved)
      speak(resolved.error());
    if (const auto named = outcome(QVNetworkManager::retrieveDeviceId("Secret-key")); !named)
      speak(named.error());
  }
  EXPECT_GE(console.waitForLines(24).size(), 24U);
  for (const auto& line : delegate->heard)
    if (!line.starts_with("did:")) spoken += line;
  EXPECT_GT(spoken.size(), 500U);
  EXPECT_EQ((spoken + console.text()).find("Secret"), std::string::npos);
}

TEST_F(Facade, AThousandCreationsAtOnceEachCompleteOnce) {
  std::vector<int> completions(1000);
  const std::vector<int> once(1000, 1);
  store("qk", "device");
  for (std::size_t i = 0; i < completions.size(); ++i)
    Quorva::createDynamicLink(link.setSelectedPath(std::to_string(i)), [&, i](auto given, auto) {
      EXPECT_EQ(given, "https://go/x");
      ++completions[i];
    });
  Quorva::createDynamicLink(link, nullptr);
  EXPECT_TRUE(drainUntil([&] { return completions == once && server.requests().size() == 1001; }));
}

}  // namespace
}  // namespace quorva
