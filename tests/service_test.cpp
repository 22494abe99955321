// The service client on the wire: what each call sends, and what each answer means.

#include "tests/ServiceFixture.h"

#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/QVNetworkManager.h"
#include "platform/SystemReadings.h"

namespace quorva {
namespace {

using nlohmann::json;
using test::Reply;

class Service : public test::ServiceFixture {
 protected:
  static void expectRequest(const test::ReceivedRequest& request, const json& body) {
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(json::parse(request.body), body);
    for (const auto& [name, value] : request.headers) {
      static const std::set<std::string> transports{
          "Host", "User-Agent", "Accept", "Accept-Encoding", "Content-Type", "Content-Length"};
      EXPECT_TRUE(transports.contains(name)) << name << ": " << value;
    }
  }

  // Has each reply answered to `call` and compares what comes of it.
  struct Row {
    int status;
    std::string_view body;
    std::string expected;
  };
  template <class Call>
  void expectOutcomes(const std::string& path, const std::vector<Row>& rows, Call call) {
    for (const auto& row : rows) {
      answer(path, Reply::json(row.status, row.body));
      const auto result = outcome(call());
      EXPECT_EQ(result ? *result : kind(result.error()), row.expected)
          << row.status << " " << row.body;
    }
  }

  const std::string badResponse = kind(URLError::Code::badServerResponse);
  const std::string badRequest = kind(QuorvaError::badRequest);
  const std::string corrupted = kind(DecodingError::Kind::dataCorrupted);
  const std::string mismatch = kind(DecodingError::Kind::typeMismatch);
};

TEST_F(Service, IdentityCallDescribesTheDevice) {
  Device::describe({UserInterfaceIdiom::pad, "17.4", "Kiosk", "Front desk", Size{390, 844.5}});
  Bundle::setMain({"com.example.shop", {{"CFBundleShortVersionString", "2.1"}}});
  setenv("LANGUAGE", "de_AT.UTF-8:en", 1);
  setenv("TZ", ":/usr/share/zoneinfo/Europe/Vienna", 1);
  answer("retrieveDeviceId", Reply::json(200, R"({"uuid":"u-1","status":"ok"})"));
  EXPECT_EQ(outcome(QVNetworkManager::retrieveDeviceId(" qk ")).value(), "u-1");
  json body = json::parse(R"({"api_key": " qk ", "ref_id": "", "data": {
      "os": "iPadOS", "os_version": "17.4", "platform": "iPadOS", "sdk_version": "1.0.0",
      "device_manufacturer": "Apple", "device_brand": "Apple", "screen_w": 390, "screen_h": 844.5,
      "locale_lang": "de-AT", "locale_timezone": "Europe/Vienna",
      "app_version": "2.1", "app_id": "com.example.shop"}})");
  body["data"]["device_model"] = platform::readKernel().machine;
  expectRequest(sent("retrieveDeviceId").at(0), body);
  const std::string sentBody = sent("retrieveDeviceId").at(0).body;
  EXPECT_NE(sentBody.find(R"("screen_w":390,)"), sentBody.npos) << "whole numbers have no fraction";
  EXPECT_NE(sentBody.find(R"("Europe\/Vienna")"), sentBody.npos) << "slashes are escaped";
}

TEST_F(Service, IdentityCallSendsWhatItDoesNotKnowAsEmpty) {
  for (const char* variable : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(variable);
  Bundle::setMain({std::nullopt, {{"CFBundleShortVersionString", 2.1}}});
  answer("retrieveDeviceId", Reply::json(200, "{}"));
  EXPECT_EQ(outcome(QVNetworkManager::retrieveDeviceId("qk")).value(), std::nullopt);
  const json data = json::parse(sent("retrieveDeviceId").at(0).body).at("data");
  EXPECT_EQ(data.size(), 13U);
  EXPECT_EQ((json{data["locale_lang"], data["app_version"], data["app_id"]}),
            json({"N/A", "", ""}));
}

TEST_F(Service, IdentityAnswersMeanWhatTheirStatusSays) {
  const std::string invalidKey = kind(QuorvaError::invalidAPIKey);
  expectOutcomes("retrieveDeviceId",
                 {{200, R"({"uuid":"u"})", "u"},
                  {299, R"({"uuid":"","status":null,"more":[1]})", ""},
                  {200, R"({"UUID":"u"})", "absent"},
                  {200, "", corrupted},
                  {200, "<html>", corrupted},
                  {200, "[]", mismatch},
                  {200, R"({"uuid":1})", mismatch},
                  {200, R"({"uuid":"u","status":1})", mismatch},
                  {401, "{}", invalidKey},
                  {401, R"({"detail":"whatever"})", invalidKey},
                  {401, "no JSON", badRequest},
                  {401, R"({"detail":1})", badRequest},
                  {500, "{}", badResponse},
                  {199, R"({"uuid":"u"})", badResponse},
                  {300, R"({"uuid":"u"})", badResponse}},
                 []() -> QVNetworkManager::Call<std::string> {
                   const auto uuid = co_await QVNetworkManager::retrieveDeviceId("qk");
                   co_return uuid.value_or("absent");
                 });
}

TEST_F(Service, CreateCallSendsTheDescription) {
  store("qk", "device");
  answer("create_link", Reply::json(201, "{}"));
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
  const std::string duplicate = kind(QuorvaError::duplicatePath);
  expectOutcomes("create_link",
                 {{201, R"({"short_url":"https://l"})", "https://l"},
                  {200, R"({"short_url":"","status":null,"message":"m"})", ""},
                  {299, R"({"shortURL":"https://l"})", "absent"},
                  {201, "{}", "absent"},
                  {201, "", corrupted},
                  {201, R"({"short_url":1})", mismatch},
                  {400, R"({"detail":"the path already exists here"})", duplicate},
                  {400, R"({"detail":"Already Exists"})", badRequest},
                  {400, R"({"message":"already exists"})", badRequest},
                  {400, R"({"message":1,"detail":"already exists"})", badRequest},
                  {400, "already exists", badRequest},
                  {400, "", badRequest},
                  {401, "{}", badResponse},
                  {404, "{}", badResponse},
                  {409, R"({"detail":"already exists"})", badResponse},
                  {500, "{}", badResponse},
                  {302, R"({"short_url":"https://l"})", badResponse}},
                 []() -> QVNetworkManager::Call<std::string> {
                   const QVDynamicLinkBuilder link("https://d", "go");
                   const CreateDynaminLinkResponse answer =
                       co_await QVNetworkManager::createLink(link);
                   co_return answer.shortURL.value_or("absent");
                 });
}

TEST_F(Service, CreateCallChecksBeforeItSends) {
  const QVDynamicLinkBuilder filled("https://d", "go");
  const auto failure = [](const QVDynamicLinkBuilder& link) {
    return outcome(QVNetworkManager::createLink(link)).error().localizedDescription();
  };
  EXPECT_EQ(failure(filled), "Failed to initialize Quorva with a valid API key");
  store("qk", std::nullopt);
  EXPECT_EQ(failure(filled), "Required Keys are missing - anonymousId");
  store("qk", "device");
  EXPECT_EQ(failure(QVDynamicLinkBuilder("", " \n")),
            "Required Keys are missing - destinationURL, domain");
  EXPECT_EQ(failure(QVDynamicLinkBuilder("https://d", "")), "Required Keys are missing - domain");
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(Service, ADescriptionThatIsNoJSONIsLoggedAndSentEmpty) {
  QVLogger::isConsoleEnabled = true;
  test::Console console;
  store("qk", "device");
  answer("create_link", Reply::json(400, "{}"));
  const QVDynamicLinkBuilder link("https://d\xFF", "go");
  EXPECT_EQ(kind(outcome(QVNetworkManager::createLink(link)).error()), badRequest);
  EXPECT_EQ(sent("create_link").at(0).body, "{}");
  EXPECT_EQ(
      console.waitForLines(1),
      std::vector<std::string>{"[❌ ERROR] [Encodable+Extensions] toDictionary(): Failed to convert "
                               "to dictionary: The data "
                               "couldn’t be written because it isn’t in the correct format."});
}

TEST_F(Service, PingSendsWhatIsStoredAndSaysHowItWent) {
  QVLogger::isConsoleEnabled = true;
  test::Console console;
  std::vector<std::string> lines;
  const auto pingThenExpect = [&](const std::string& line) {
    lines.push_back(line);
    QVNetworkManager::devicePing();
    EXPECT_EQ(console.waitForLines(lines.size()), lines);
  };
  const std::string success = "[✅ SUCCESS] [QVNetworkManager] devicePing(): SDK ping successful";

  Device::describe({std::nullopt, "17.4", "Kiosk", "Desk", std::nullopt});
  pingThenExpect(success);
  json body = json::parse(R"({"api_key": "", "device_id": "", "platform": "ios",
      "lib": "quorva-ios", "lib_version": "1.0.0", "device_info": {"os_version": "17.4",
      "manufacturer": "Apple", "model": "Kiosk", "brand": "Apple", "device": "Desk"}})");
  body["device_info"]["product"] = platform::readKernel().machine;
  expectRequest(sent("device_ping").at(0), body);

  store("qk", "device");
  answer("device_ping", Reply::json(500, "no JSON"));
  pingThenExpect(success);  // whatever the answer
  body["api_key"] = "qk";
  body["device_id"] = "device";
  expectRequest(sent("device_ping").at(1), body);

  useLocalService(test::unusedPort(), caFile);
  pingThenExpect(
      "[❌ ERROR] [QVNetworkManager] devicePing(): SDK ping failed: Could not connect to the "
      "server.");
}

}  // namespace
}  // namespace quorva
