// The link's description: its setters, and its JSON form.

#include <gtest/gtest.h>

#include "QuorvaSDK/Encodable+Extensions.h"
#include "QuorvaSDK/QVDynamicLinkBuilder.h"
#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/StorageKeys.h"
#include "tests/Support.h"

namespace quorva {
namespace {

using platform::AppStorage;
using Texts = std::vector<std::string>;

std::string text(const QVDynamicLinkBuilder& link) {
  return *JSONEncoder().encode(link);
}

Result<QVDynamicLinkBuilder> decoded(std::string_view json) {
  return JSONDecoder().decode<QVDynamicLinkBuilder>(json);
}

const std::string bare =
    R"({"android_behavior":2,"destination_url":"d","domain":"g","ios_behavior":2)";

TEST(Behaviour, IsItsRawValue) {
  EXPECT_EQ(fromRawValue<QVDynamicLinkBehaviour>(1), QVDynamicLinkBehaviour::browser);
  EXPECT_EQ(fromRawValue<QVDynamicLinkBehaviour>(2), QVDynamicLinkBehaviour::app);
  for (const std::int64_t raw : {0, 3, -1})
    EXPECT_EQ(fromRawValue<QVDynamicLinkBehaviour>(raw), std::nullopt);
  EXPECT_EQ(allCases<QVDynamicLinkBehaviour>,
            (std::array{QVDynamicLinkBehaviour::browser, QVDynamicLinkBehaviour::app}));
}

TEST(Builder, EachSetterWritesItsOwnKeyTrimmed) {
  using Setter = QVDynamicLinkBuilder (QVDynamicLinkBuilder::*)(std::string_view) const;
  const std::pair<Setter, const char*> rows[] = {
      {&QVDynamicLinkBuilder::setLinkName, "link_name"},
      {&QVDynamicLinkBuilder::setSelectedPath, "selected_path"},
      {&QVDynamicLinkBuilder::setSocialTitle, "social_title"},
      {&QVDynamicLinkBuilder::setSocialDescription, "social_description"},
      {&QVDynamicLinkBuilder::setSocialImageUrl, "social_image_url"},
      {&QVDynamicLinkBuilder::setUTMCampaign, "utm_campaign"},
      {&QVDynamicLinkBuilder::setUTMContent, "utm_content"},
      {&QVDynamicLinkBuilder::setUTMMedium, "utm_medium"},
      {&QVDynamicLinkBuilder::setUTMSource, "utm_source"},
      {&QVDynamicLinkBuilder::setUTMTerm, "utm_term"},
  };
  const QVDynamicLinkBuilder start(" \td\n", "g");
  for (const auto& [set, key] : rows) {
    const auto expected = [&, k = key](std::string_view value) {
      return bare + ",\"" + k + "\":\"" + std::string(value) + "\"}";
    };
    EXPECT_EQ(text(((start.*set)("x").*set)("\n y z\t").build()), expected("y z"));
    EXPECT_EQ(text((start.*set)(" \n")), expected("")) << "present and empty";
  }
  EXPECT_EQ(text(start), bare + "}") << "setters leave it as it is";
  EXPECT_EQ(text(start.setAndroidBehaviour(QVDynamicLinkBehaviour::browser)),
            R"({"android_behavior":1,"destination_url":"d","domain":"g","ios_behavior":2})");
  EXPECT_EQ(text(start.setIOSBehaviour(QVDynamicLinkBehaviour::browser)),
            R"({"android_behavior":2,"destination_url":"d","domain":"g","ios_behavior":1})");
}

TEST(Builder, GroupsReplaceTheirFieldsAndTheLastCallWins) {
  const QVDynamicLinkBuilder start("d", "g");
  const auto utm = start.setUTMContent("old").setUTMTerm("old").setUTMParameters(" s", "m ", "c");
  EXPECT_EQ(text(utm), bare + R"(,"utm_source":"s","utm_medium":"m","utm_campaign":"c"})");
  EXPECT_EQ(text(utm.setUTMContent("new").setUTMSource("z")),
            bare + R"(,"utm_source":"z","utm_medium":"m","utm_campaign":"c","utm_content":"new"})");
  EXPECT_EQ(
      text(start.setUTMParameters("s", "m", "c", " ", "t ")),
      bare +
          R"(,"utm_source":"s","utm_medium":"m","utm_campaign":"c","utm_content":"","utm_term":"t"})");
  EXPECT_EQ(text(start.setSocialTitle("old").setSocialParameters(" t", "d ", "i")),
            bare + R"(,"social_description":"d","social_image_url":"i","social_title":"t"})");
}

TEST(Builder, TakesNoteOfKeyAndIdentifierWhenItIsMade) {
  const QVDynamicLinkBuilder before("d", "g");
  StorageKeys::apiKey.set("qk");
  StorageKeys::anonymousId.set("");
  const QVDynamicLinkBuilder between("d", "g");
  StorageKeys::apiKey.set("later");
  EXPECT_EQ(text(before.setUTMTerm("t")), bare + R"(,"utm_term":"t"})");
  EXPECT_EQ(text(between.build()), R"({"api_key":"qk","device_id":"",)" + bare.substr(1) + "}");
  EXPECT_EQ(decoded(text(before)).value(), before) << "nothing stored is read in";
  EXPECT_EQ(decoded(text(between)).value(), between);
  EXPECT_NE(before, between);
}

TEST(Builder, DecodesAsTheTextSaysOrFailsAtTheFirstKey) {
  const auto object = [](const char* android, const char* destination, const char* domain,
                         const char* rest) {
    return std::string("{") + rest + R"("android_behavior":)" + android + R"(,"destination_url":)" +
           destination + R"(,"domain":)" + domain + R"(,"ios_behavior":1})";
  };
  EXPECT_EQ(
      text(decoded(object("2", "\" d\"", "\"\"", R"("link_name":null,"more":[],"utm_term":" t ",)"))
               .value()),
      R"({"android_behavior":2,"destination_url":" d","domain":"","ios_behavior":1,"utm_term":" t "})");

  using Kind = DecodingError::Kind;
  struct Row {
    std::string json;
    Kind kind;
    Texts path;
  };
  const Row rows[] = {
      {"[]", Kind::typeMismatch, {}},
      {"null", Kind::valueNotFound, {}},
      {"{", Kind::dataCorrupted, {}},
      {"{}", Kind::keyNotFound, {"android_behavior"}},
      {object("0", "\"d\"", "\"g\"", ""), Kind::dataCorrupted, {"android_behavior"}},
      {object("\"2\"", "\"d\"", "\"g\"", ""), Kind::typeMismatch, {"android_behavior"}},
      {object("true", "\"d\"", "\"g\"", ""), Kind::typeMismatch, {"android_behavior"}},
      {object("null", "\"d\"", "\"g\"", ""), Kind::valueNotFound, {"android_behavior"}},
      {object("1", "null", "7", ""), Kind::valueNotFound, {"destination_url"}},
      {object("1", "\"d\"", "7", ""), Kind::typeMismatch, {"domain"}},
      {object("1", "\"d\"", "\"g\"", R"("utm_term":{},"link_name":1,)"),
       Kind::typeMismatch,
       {"link_name"}},
      {object("9", "\"d\"", "\"g\"", R"("api_key":false,)"), Kind::typeMismatch, {"api_key"}},
      {R"({"android_behavior":1,"destination_url":"d","domain":"g"})",
       Kind::keyNotFound,
       {"ios_behavior"}},
  };
  for (const auto& row : rows) {
    const auto result = decoded(row.json);
    ASSERT_FALSE(result) << row.json;
    EXPECT_EQ(result.error().as<DecodingError>()->kind, row.kind) << row.json;
    EXPECT_EQ(result.error().as<DecodingError>()->codingPath, row.path) << row.json;
  }
}

TEST(Builder, NamesItsEmptyRequiredFields) {
  EXPECT_EQ(emptyRequiredFields(QVDynamicLinkBuilder("", "\t")),
            (Texts{"destinationURL", "domain"}));
  EXPECT_EQ(emptyRequiredFields(QVDynamicLinkBuilder("d", "")), Texts{"domain"});
  EXPECT_EQ(emptyRequiredFields(QVDynamicLinkBuilder("d", "g").setLinkName("")), Texts{});
  const auto blank =
      decoded(R"({"android_behavior":2,"destination_url":" ","domain":"g","ios_behavior":2})");
  EXPECT_EQ(emptyRequiredFields(*blank), Texts{}) << "blanks are no emptiness";
}

TEST(Dictionary, IsWhatAnObjectEncodesTo) {
  QVLogger::isConsoleEnabled = true;
  test::Console console;
  const auto dictionary = toDictionary(QVDynamicLinkBuilder("d", "g")).value();
  EXPECT_EQ(*platform::serializeJSON(dictionary), bare + "}");
  EXPECT_EQ(toDictionary(JSONValue(JSONValue::Array{})), std::nullopt);
  EXPECT_EQ(toDictionary(JSONValue("text")), std::nullopt);
  EXPECT_EQ(console.text(), "") << "what is no dictionary is no failure";
}

}  // namespace
}  // namespace quorva
