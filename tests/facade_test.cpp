// What a host sees: initialization, link creation, the delegate, and the lines that tell of them.

#include <thread>

#include "tests/ServiceFixture.h"

namespace quorva {
namespace {

using test::Console;
using test::drainUntil;
using test::Reply;
using Lines = std::vector<std::string>;

// Writes down what it's told.
struct Recorder : QuorvaDelegate {
  void quorvaDidInitialize(const QVConfiguration& config) override {
    heard.push_back("did:" + config.apiKey);
    then();
  }
  void quorvaDidFailToInitialize(const Error& error) override { heard.push_back(error.what()); }

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
  Facade() {
    answer("retrieveDeviceId", Reply::json(200, R"({"uuid":"u-1"})"));
    answer("create_link", Reply::json(201, R"({"short_url":"https://go/x"})"));
  }

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
  EXPECT_TRUE(StorageKeys::firstLaunch.get());
}

TEST_F(Facade, AnEmptyIdentifierIsOneTooAndNothingIsPrintedWithoutDebugging) {
  store(std::nullopt, "");
  Console console;
  Quorva::initialize(QVConfiguration("", false, delegate));
  Quorva::initialize(QVConfiguration("qk", false, delegate));
  EXPECT_EQ(delegate->heard, Lines{"did:qk"});
  answer("create_link", Reply::json(500, ""));
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
  answer("retrieveDeviceId", Reply::json(401, "{}"));
  Console console;
  Quorva::initialize(QVConfiguration("qk", true, delegate));
  EXPECT_EQ(console.waitForLines(1), Lines{blankKey});
  EXPECT_EQ(delegate->heard, Lines{"Failed to initialize Quorva with a valid API key"});
  EXPECT_EQ(StorageKeys::apiKey.get(), "qk");
  EXPECT_TRUE(sent("device_ping").empty());

  answer("retrieveDeviceId", Reply::json(200, "{}"));
  Quorva::initialize(QVConfiguration("qk", true, nullptr));
  // An answer without one is a success.
  EXPECT_EQ(console.waitForLines(3), (Lines{blankKey, initialized, pinged}));
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

TEST_F(Facade, AQueueThatIsEmptiedLateDelaysAndLosesNothing) {
  Quorva::initialize(QVConfiguration("qk", false, delegate));
  std::optional<std::string> created;
  store("qk", "device");
  Quorva::createDynamicLink(link, [&](auto shortLink, auto) { created = shortLink; });
  // The identity call waits for readings on this thread.
  EXPECT_EQ(server.waitForRequest(0).target, "/app/api/v1/create_link");
  EXPECT_FALSE(created);
  EXPECT_TRUE(drainUntil([&] { return created && !delegate->heard.empty(); }));
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
  answer("create_link", Reply::json(400, R"({"detail":"it already exists"})"));
  expectFailure(link, QuorvaError(QuorvaError::duplicatePath));

  answer("create_link", Reply::json(200, "{}"));
  EXPECT_EQ(create(link), kind(QuorvaError::invalidResponse)) << "and says nothing";
  EXPECT_EQ(outcome(Quorva::createDynamicLink(link)).value(), std::nullopt);
  lines.push_back(created);
  EXPECT_EQ(console.waitForLines(lines.size()), lines);
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
  std::set<std::string> bodies;
  for (const auto& request : sent("create_link")) bodies.insert(request.body);
  EXPECT_EQ(bodies.size(), 1001U);
}

TEST(Constants, AreTheRelease) {
  EXPECT_EQ(QuorvaSDKVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(QuorvaSDKVersionString),
               "@(#)PROGRAM:QuorvaSDK  PROJECT:QuorvaSDK-1\n");
  // No call goes there yet that would show where they lead.
  const std::string calls = std::string(QVUrls::baseUrl) + "api/v1/";
  EXPECT_EQ(QVUrls::deferredDeeplinksUrl, calls + "getAnyDeferredDeeplinks");
  EXPECT_EQ(QVUrls::resolveUrl, calls + "resolve");
}

}  // namespace
}  // namespace quorva
