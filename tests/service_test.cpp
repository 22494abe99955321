// The service client on the wire: what each call sends, and what each answer means.

#include "tests/ServiceFixture.h"

#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/QVNetworkManager.h"
#include "platform/SystemReadings.h"
#include "tests/Vectors.h"

namespace quorva {
namespace {

using nlohmann::json;
using test::outcome;

class Service : public test::ServiceFixture {
 protected:
  static void expectRequest(const test::ReceivedRequest& request, const json& body) {
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(json::parse(request.body), body);
    auto headers = request.headers;
    for (const auto* curls : {"Host", "User-Agent", "Accept", "Accept-Encoding", "Content-Length"})
      headers.erase(curls);
    EXPECT_EQ(headers, (test::Headers{{"Content-Type", "application/json"}}));
  }

  // Has each of the statuses answered with the body, and compares what `call` makes of it.
  void expectOutcomes(const std::string& path, std::string (*call)()) {
    const std::map<std::string, std::string> errors{
        {"badServerResponse", kind(URLError::Code::badServerResponse)},
        {"badRequest", kind(QuorvaError::badRequest)},
        {"duplicatePath", kind(QuorvaError::duplicatePath)},
        {"invalidAPIKey", kind(QuorvaError::invalidAPIKey)},
        {"dataCorrupted", kind(DecodingError::Kind::dataCorrupted)},
        {"typeMismatch", kind(DecodingError::Kind::typeMismatch)}};
    const json answers = test::vectors("answers.json");
    for (const json& row : answers.at(path))
      for (const int status : row[0]) {
        answer(path, status, std::string(row[1]));
        const auto error = errors.find(row[2]);
        EXPECT_EQ(call(), error == errors.end() ? std::string(row[2]) : error->second) << row;
      }
  }
};

TEST_F(Service, IdentityCallDescribesTheDevice) {
  Device::describe({UserInterfaceIdiom::pad, "17.4", "Kiosk", "Front desk", Size{390, 844.5}});
  Bundle::setMain({"com.example.shop", {{"CFBundleShortVersionString", "2.1"}}});
  setenv("LANGUAGE", "de_AT.UTF-8:en", 1);
  setenv("TZ", ":/usr/share/zoneinfo/Europe/Vienna", 1);
  answer("retrieveDeviceId", 200, R"({"uuid":"u-1","status":"ok"})");
  EXPECT_EQ(outcome(QVNetworkManager::retrieveDeviceId(" qk ")).value(), "u-1");
  json body = json::parse(R"({"api_key": " qk ", "ref_id": "", "data": {
      "os": "iPadOS", "os_version": "17.4", "platform": "iPadOS", "sdk_version": "1.0.0",
      "device_manufacturer": "Apple", "device_brand": "Apple", "screen_w": 390, "screen_h": 844.5,
      "locale_lang": "de-AT", "locale_timezone": "Europe/Vienna",
      "app_version": "2.1", "app_id": "com.example.shop"}})");
  body["data"]["device_model"] = platform::readKernel().machine;
  expectRequest(sent("retrieveDeviceId").at(0), body);
  const std::string bytes = sent("retrieveDeviceId").at(0).body;
  EXPECT_NE(bytes.find(R"("screen_w":390,)"), bytes.npos) << "whole numbers have no fraction";
  EXPECT_NE(bytes.find(R"("Europe\/Vienna")"), bytes.npos) << "slashes are escaped";
}

TEST_F(Service, IdentityCallSendsWhatItDoesNotKnowAsEmpty) {
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(name);
  Bundle::setMain({std::nullopt, {{"CFBundleShortVersionString", 2.1}}});
  answer("retrieveDeviceId", 200, "{}");
  EXPECT_EQ(outcome(QVNetworkManager::retrieveDeviceId("qk")).value(), std::nullopt);
  const json data = json::parse(sent("retrieveDeviceId").at(0).body).at("data");
  EXPECT_EQ(data.size(), 13U);
  const json unknown{data["locale_lang"], data["app_version"], data["app_id"]};
  EXPECT_EQ(unknown, R"(["N/A","",""])"_json);
}

TEST_F(Service, IdentityAnswersMeanWhatTheirStatusSays) {
  const auto call = [] {
    const auto uuid = outcome(QVNetworkManager::retrieveDeviceId("qk"));
    return uuid ? uuid->value_or("absent") : kind(uuid.error());
  };
  expectOutcomes("retrieveDeviceId", call);
}

TEST_F(Service, CreateCallSendsTheDescription) {
  store("qk", "device");
  answer("create_link", 201, "{}");
  const auto link = QVDynamicLinkBuilder(" https://shop.example/a?b=\"c\" ", "go.shop.example\n")
                        .setIOSBehaviour(QVDynamicLinkBehaviour::browser)
                        .setLinkName("  ")
                        .setSelectedPath("frühling")
                        .setSocialParameters("T", "D", "https://i.example/i.png")
                        .setUTMParameters("s", "m", "c", "ct", "t");
  store("other", "other");
  EXPECT_TRUE(outcome(QVNetworkManager::createLink(link)));
  expectRequest(sent("create_link").at(0), json::parse(R"({
      "api_key": "qk", "device_id": "device", "android_behavior": 2, "ios_behavior": 1,
      "destination_url": "https://shop.example/a?b=\"c\"", "domain": "go.shop.example",
      "link_name": "", "selected_path": "frühling", "social_title": "T", "social_description": "D",
      "social_image_url": "https://i.example/i.png", "utm_source": "s", "utm_medium": "m",
      "utm_campaign": "c", "utm_content": "ct", "utm_term": "t"})"));
}

TEST_F(Service, CreateAnswersMeanWhatTheirStatusSays) {
  store("", "");  // present, if empty: that will do
  const auto call = [] {
    const auto created = outcome(QVNetworkManager::createLink({"https://d", "go"}));
    return created ? created->shortURL.value_or("absent") : kind(created.error());
  };
  expectOutcomes("create_link", call);
}

TEST_F(Service, CreateCallChecksItsFieldsBeforeItSendsThem) {
  const auto failure = [](const char* destination, const char* domain) {
    const QVDynamicLinkBuilder link(destination, domain);
    return outcome(QVNetworkManager::createLink(link)).error().localizedDescription();
  };
  EXPECT_EQ(failure("d", "g"), "Failed to initialize Quorva with a valid API key");
  store("qk", std::nullopt);
  EXPECT_EQ(failure("d", "g"), "Required Keys are missing - anonymousId");
  store("qk", "device");
  EXPECT_EQ(failure("", " \n"), "Required Keys are missing - destinationURL, domain");
  EXPECT_EQ(failure("d", ""), "Required Keys are missing - domain");
  EXPECT_TRUE(server.requests().empty());

  // What is no JSON is told of and sent empty.
  QVLogger::isConsoleEnabled = true;
  test::Console console;
  answer("create_link", 404, "{}");
  failure("\xFF", "g");
  EXPECT_EQ(sent("create_link").at(0).body, "{}");
  EXPECT_EQ(console.waitForLines(1).at(0),
            "[❌ ERROR] [Encodable+Extensions] toDictionary(): Failed to convert to dictionary: "
            "The data couldn’t be written because it isn’t in the correct format.");
}

TEST_F(Service, CallsAboutTappedLinksSayWhoAsksAndGiveWhatIsAnswered) {
  const auto resolve = [] {
    const auto url = URL::parse("shop://go.shop.example/a%20b?c=d#e").value();
    const auto destination = outcome(QVNetworkManager::resolveLink(url));
    return destination ? destination->value_or("absent") : kind(destination.error());
  };
  const auto deferred = [] {
    const auto answer = outcome(QVNetworkManager::getAnyDeferredDeeplinks());
    return answer ? platform::serializeJSON(platform::encode(*answer)).value()
                  : kind(answer.error());
  };
  for (const auto call : {+resolve, +deferred}) {
    store(std::nullopt, std::nullopt);
    EXPECT_EQ(call(), kind(QuorvaError::invalidAPIKey));
    store("qk", std::nullopt);
    EXPECT_EQ(call(), kind(QuorvaError::invalidResponse));
  }
  EXPECT_TRUE(server.requests().empty());
  store("", "device");  // an empty one is sent

  expectOutcomes("resolve", resolve);
  expectRequest(sent("resolve").at(0), {{"api_key", ""},
                                        {"device_uuid", "device"},
                                        {"short_url", "shop://go.shop.example/a%20b?c=d#e"}});

  expectOutcomes("getAnyDeferredDeeplinks", deferred);
  expectRequest(sent("getAnyDeferredDeeplinks").at(0),
                {{"api_key", ""}, {"device_uuid", "device"}});
}

TEST_F(Service, PingSendsWhatIsStoredAndSaysHowItWent) {
  QVLogger::isConsoleEnabled = true;
  test::Console console;
  auto ping = [&, count = 0U]() mutable {
    QVNetworkManager::devicePing();
    return console.waitForLines(++count).back();
  };
  const std::string sdkPing = "] [QVNetworkManager] devicePing(): SDK ping ";

  Device::describe({std::nullopt, "17.4", "Kiosk", "Desk", std::nullopt});
  EXPECT_EQ(ping(), "[✅ SUCCESS" + sdkPing + "successful");
  json body = json::parse(R"({"api_key": "", "device_id": "", "platform": "ios",
      "lib": "quorva-ios", "lib_version": "1.0.0", "device_info": {"os_version": "17.4",
      "manufacturer": "Apple", "model": "Kiosk", "brand": "Apple", "device": "Desk"}})");
  body["device_info"]["product"] = platform::readKernel().machine;
  expectRequest(sent("device_ping").at(0), body);

  store("qk", "device");
  answer("device_ping", 500, "no JSON");
  EXPECT_EQ(ping(), "[✅ SUCCESS" + sdkPing + "successful") << "whatever the answer";
  body.update({{"api_key", "qk"}, {"device_id", "device"}});
  expectRequest(sent("device_ping").at(1), body);

  useLocalService(test::unusedPort(), caFile);
  EXPECT_EQ(ping(), "[❌ ERROR" + sdkPing + "failed: Could not connect to the server.");
}

}  // namespace
}  // namespace quorva
