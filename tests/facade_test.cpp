// What a host sees: initialization, link creation, the delegate, and the lines that tell of them.

#include <thread>

#include "QuorvaSDK/QVLogger.h"
#include "tests/ServiceFixture.h"

namespace quorva {
namespace {

using test::Console;
using test::drainUntil;
using test::Reply;
using Lines = std::vector<std::string>;

// Writes down what it's told.
struct Recorder : QuorvaDelegate {
  explicit Recorder(std::string called = "") : name(std::move(called)) {}
  void quorvaDidInitialize(const QVConfiguration& config) override {
    heard.push_back(name + "did:" + config.apiKey);
  }
  void quorvaDidFailToInitialize(const Error& error) override {
    heard.push_back(name + "failed:" + error.localizedDescription());
  }

  const std::string name;
  Lines heard;
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

  struct Outcome {
    std::optional<std::string> link;
    std::optional<Error> error;
  };
  // By the completion form.
  static Outcome create(const QVDynamicLinkBuilder& link) {
    std::vector<Outcome> outcomes;
    Quorva::createDynamicLink(link, [&](auto shortLink, auto error) {
      outcomes.push_back({shortLink, error});
    });
    EXPECT_TRUE(outcomes.empty()) << "called inside the call";
    EXPECT_TRUE(drainUntil([&] { return !outcomes.empty(); }));
    return outcomes.at(0);
  }

  const std::shared_ptr<Recorder> delegate = std::make_shared<Recorder>();
  const QVDynamicLinkBuilder link{"https://d", "go"};
};

// First, since nothing takes an initialization back.
TEST_F(Facade, BeforeInitializationOneFormRefusesAndTheOtherSends) {
  const auto refused = outcome(Quorva::createDynamicLink(link));
  EXPECT_EQ(refused.error().localizedDescription(), "SDK has not been initialized");
  EXPECT_TRUE(server.requests().empty());
  store("qk", "device");
  EXPECT_EQ(create(link).link, "https://go/x");
}

TEST_F(Facade, FirstInitializationGetsTheIdentifierAndLaterOnesFindIt) {
  Console console;
  const QVConfiguration config("  qk\t", true, delegate);
  Quorva::initialize(config);
  EXPECT_TRUE(delegate->heard.empty());
  EXPECT_EQ(StorageKeys::apiKey.get(), "  qk\t");
  EXPECT_EQ(StorageKeys::anonymousId.get(), std::nullopt);
  EXPECT_EQ(console.waitForLines(2), (Lines{initialized, pinged}));
  EXPECT_EQ(delegate->heard, Lines{"did:  qk\t"});
  EXPECT_EQ(StorageKeys::anonymousId.get(), "u-1");
  EXPECT_EQ(nlohmann::json::parse(sent("retrieveDeviceId").at(0).body).at("api_key"), "  qk\t");
  EXPECT_EQ(nlohmann::json::parse(sent("device_ping").at(0).body).at("device_id"), "u-1");

  Quorva::initialize(QVConfiguration("other", false, delegate));
  EXPECT_EQ(delegate->heard.back(), "did:other") << "before initialize returns";
  EXPECT_EQ(console.waitForLines(4), (Lines{initialized, pinged, initialized, pinged}))
      << "debugging stays on";
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
  EXPECT_TRUE(create(link).error);
  EXPECT_TRUE(sent("retrieveDeviceId").empty());
  EXPECT_EQ(console.text(), "");
}

TEST_F(Facade, ABlankKeyIsLoggedAndChangesOnlyTheDelegate) {
  store("kept", std::nullopt);
  Console console;
  const std::weak_ptr<Recorder> before = [&] {
    const auto old = std::make_shared<Recorder>();
    Quorva::initialize(QVConfiguration("", true, old));
    return old;
  }();
  EXPECT_FALSE(before.expired());
  Quorva::initialize(QVConfiguration(" \t\r\n\u00A0", false, delegate));
  EXPECT_TRUE(before.expired());
  EXPECT_EQ(console.waitForLines(2), (Lines{blankKey, blankKey}));
  EXPECT_TRUE(delegate->heard.empty());
  EXPECT_EQ(StorageKeys::apiKey.get(), "kept");
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(kind(outcome(Quorva::createDynamicLink(link)).error()), kind(QuorvaError::missingKeys))
      << "it counts as initialized";
}

TEST_F(Facade, AFailedIdentityCallIsToldAndTriedAgainNextTime) {
  answer("retrieveDeviceId", Reply::json(401, "{}"));
  Console console;
  Quorva::initialize(QVConfiguration("qk", true, delegate));
  EXPECT_EQ(console.waitForLines(1), Lines{blankKey});
  EXPECT_EQ(delegate->heard, Lines{"failed:Failed to initialize Quorva with a valid API key"});
  EXPECT_EQ(StorageKeys::apiKey.get(), "qk");
  EXPECT_EQ(StorageKeys::anonymousId.get(), std::nullopt);
  EXPECT_TRUE(sent("device_ping").empty());

  answer("retrieveDeviceId", Reply::json(200, "{}"));
  Quorva::initialize(QVConfiguration("qk", true, delegate));
  EXPECT_EQ(console.waitForLines(3), (Lines{blankKey, initialized, pinged}))
      << "an answer without one is a success";
  EXPECT_EQ(StorageKeys::anonymousId.get(), std::nullopt);
  Quorva::initialize(QVConfiguration("qk", true, nullptr));
  EXPECT_EQ(console.waitForLines(5).size(), 5U);
  EXPECT_EQ(sent("retrieveDeviceId").size(), 3U);
}

TEST_F(Facade, TwoInitializationsBeforeTheIdentifierBothFinishWithTheNewerDelegate) {
  const auto newer = std::make_shared<Recorder>();
  Quorva::initialize(QVConfiguration("first", false, delegate));
  Quorva::initialize(QVConfiguration("second", false, newer));
  EXPECT_TRUE(drainUntil([&] { return newer->heard.size() == 2; }));
  EXPECT_TRUE(delegate->heard.empty());
  EXPECT_EQ(std::set<std::string>(newer->heard.begin(), newer->heard.end()),
            (std::set<std::string>{"did:first", "did:second"}));
  EXPECT_EQ(sent("retrieveDeviceId").size(), 2U);
}

// Replaces itself from inside its own callback, where the library lets go of it.
struct SelfReplacing : QuorvaDelegate {
  explicit SelfReplacing(std::shared_ptr<QuorvaDelegate> next) : next_(std::move(next)) {}
  ~SelfReplacing() override { isAlive = false; }
  void quorvaDidInitialize(const QVConfiguration&) override {
    Quorva::initialize(QVConfiguration("replaced", false, next_));
    EXPECT_TRUE(isAlive);
  }
  static inline bool isAlive = true;

 private:
  std::shared_ptr<QuorvaDelegate> next_;
};

TEST_F(Facade, ADelegateOutlivesTheCallInWhichItIsReplaced) {
  store(std::nullopt, "device");
  Quorva::initialize(QVConfiguration("qk", false, std::make_shared<SelfReplacing>(delegate)));
  EXPECT_FALSE(SelfReplacing::isAlive);
  EXPECT_EQ(delegate->heard, Lines{"did:replaced"});
}

TEST_F(Facade, AQueueThatIsEmptiedLateDelaysAndLosesNothing) {
  Quorva::initialize(QVConfiguration("qk", false, delegate));
  std::optional<std::string> created;
  store("qk", "device");
  Quorva::createDynamicLink(link, [&](auto shortLink, auto) { created = shortLink; });
  const auto request = server.waitForRequest(0);
  EXPECT_EQ(request.target, "/app/api/v1/create_link")
      << "the identity call waits for readings on this thread";
  EXPECT_FALSE(created);
  EXPECT_TRUE(drainUntil([&] { return created && !delegate->heard.empty(); }));
}

TEST_F(Facade, InitializingElsewhereIsToldAndDoneOnTheApplicationsThread) {
  MainQueue::drain();
  store(std::nullopt, "device");
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
  const std::string completionForm = "createDynamicLink(for:completion:): Failed to create Link - ";
  const std::string coroutineForm = "createDynamicLink(for:): Failed to create dynamic link: ";
  const std::string created =
      "[✅ SUCCESS] [QuorvaSDK] createDynamicLink(for:): Successfully created dynamic link";
  const auto expectFailure = [&](const QVDynamicLinkBuilder& description, const Error& error) {
    EXPECT_EQ(kind(*create(description).error), kind(error));
    EXPECT_EQ(kind(outcome(Quorva::createDynamicLink(description)).error()), kind(error));
    for (const auto& form : {completionForm, coroutineForm}) {
      lines.push_back("[❌ ERROR] [QuorvaSDK] " + form + error.localizedDescription());
    }
    EXPECT_EQ(console.waitForLines(lines.size()), lines);
  };

  EXPECT_EQ(create(link).link, "https://go/x") << "and says nothing";
  EXPECT_EQ(outcome(Quorva::createDynamicLink(link)).value(), "https://go/x");
  lines.push_back(created);
  expectFailure(QVDynamicLinkBuilder("https://d", " "), QuorvaError::missing({"domain"}));
  answer("create_link", Reply::json(400, R"({"detail":"it already exists"})"));
  expectFailure(link, QuorvaError(QuorvaError::duplicatePath));
  answer("create_link", Reply::json(500, ""));
  expectFailure(link, URLError(URLError::Code::badServerResponse));

  answer("create_link", Reply::json(200, "{}"));
  EXPECT_EQ(kind(*create(link).error), kind(QuorvaError::invalidResponse)) << "and says nothing";
  EXPECT_EQ(outcome(Quorva::createDynamicLink(link)).value(), std::nullopt);
  lines.push_back(created);
  EXPECT_EQ(console.waitForLines(lines.size()), lines);
}

TEST_F(Facade, AThousandCreationsAtOnceEachCompleteOnce) {
  constexpr std::size_t count = 1000;
  store("qk", "device");
  std::vector<int> completions(count);
  std::size_t done = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const auto numbered = link.setSelectedPath(std::to_string(i));
    Quorva::createDynamicLink(numbered, [&, i](auto shortLink, auto error) {
      EXPECT_TRUE(shortLink && !error) << (error ? error->localizedDescription() : "neither");
      ++completions[i];
      ++done;
    });
  }
  Quorva::createDynamicLink(link, nullptr);
  EXPECT_TRUE(drainUntil([&] { return done == count && sent("create_link").size() == count + 1; }));
  EXPECT_EQ(completions, std::vector<int>(count, 1));
  std::set<std::string> bodies;
  for (const auto& request : sent("create_link")) bodies.insert(request.body);
  EXPECT_EQ(bodies.size(), count + 1);
}

TEST(Version, IsExported) {
  EXPECT_EQ(QuorvaSDKVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(QuorvaSDKVersionString),
               "@(#)PROGRAM:QuorvaSDK  PROJECT:QuorvaSDK-1\n");
}

TEST(Endpoints, AreAbsoluteHTTPSURLs) {
  const std::string base(QVUrls::baseUrl);
  EXPECT_TRUE(base.starts_with("https://") && base.ends_with("/app/"));
  const std::pair<std::string_view, std::string> rows[] = {
      {QVUrls::retrieveDeviceIdUrl, "retrieveDeviceId"},
      {QVUrls::devicePingUrl, "device_ping"},
      {QVUrls::deferredDeeplinksUrl, "getAnyDeferredDeeplinks"},
      {QVUrls::resolveUrl, "resolve"},
      {QVUrls::createLinkUrl, "create_link"}};
  for (const auto& [url, path] : rows) {
    EXPECT_EQ(URL::parse(url).value().absoluteString(), base + "api/v1/" + path);
  }
}

}  // namespace
}  // namespace quorva
