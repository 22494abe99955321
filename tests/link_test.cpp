// The link's description: its setters, and its JSON form.

#include <gtest/gtest.h>

#include "QuorvaSDK/Encodable+Extensions.h"
#include "QuorvaSDK/QVDynamicLinkBuilder.h"
#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/StorageKeys.h"
#include "tests/Support.h"

namespace quorva {
namespace {

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
  EXPECT_EQ(fromRawValue<QVDynamicLinkBehaviour>(3), std::nullopt);
}

TEST(Builder, EachSetterWritesItsOwnKeyTrimmed) {
  using Link = QVDynamicLinkBuilder;
  const std::pair<Link (Link::*)(std::string_view) const, const char*> rows[] = {
      {&Link::setLinkName, "link_name"},
      {&Link::setSelectedPath, "selected_path"},
      {&Link::setSocialTitle, "social_title"},
      {&Link::setSocialDescription, "social_description"},
      {&Link::setSocialImageUrl, "social_image_url"},
      {&Link::setUTMCampaign, "utm_campaign"},
      {&Link::setUTMContent, "utm_content"},
      {&Link::setUTMMedium, "utm_medium"},
      {&Link::setUTMSource, "utm_source"},
      {&Link::setUTMTerm, "utm_term"}};
  const Link start(" \td\n", "g");
  for (const auto& [set, key] : rows) {
    const std::string prefix = bare + ",\"" + key + "\":\"";
    EXPECT_EQ(text(((start.*set)("x").*set)("\n y z\t").build()), prefix + "y z\"}");
    EXPECT_EQ(text((start.*set)(" \n")), prefix + "\"}") << "present and empty";
  }
  EXPECT_EQ(text(start), bare + "}") << "setters leave it as it is";
  EXPECT_EQ(text(start.setAndroidBehaviour(QVDynamicLinkBehaviour::browser)),
            R"({"android_behavior":1,"destination_url":"d","domain":"g","ios_behavior":2})");
}

TEST(Builder, GroupsReplaceTheirFieldsAndTheLastCallWins) {
  const QVDynamicLinkBuilder start("d", "g");
  const auto utm = start.setUTMContent("old").setUTMTerm("old").setUTMParameters(" s", "m ", "c");
  EXPECT_EQ(text(utm), bare + R"(,"utm_source":"s","utm_medium":"m","utm_campaign":"c"})");
  EXPECT_EQ(text(utm.setUTMContent("new").setUTMSource("z")),
            bare + R"(,"utm_source":"z","utm_medium":"m","utm_campaign":"c","utm_content":"new"})");
  EXPECT_EQ(text(start.setUTMParameters("s", "m", "", " ", "t ")),
            bare + R"(,"utm_source":"s","utm_medium":"m","utm_campaign":"","utm_content":"",)" +
                R"("utm_term":"t"})");
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

TEST(Builder, NamesItsEmptyRequiredFields) {
  EXPECT_EQ(emptyRequiredFields(QVDynamicLinkBuilder("", "\t")),
            (Texts{"destinationURL", "domain"}));
  EXPECT_EQ(emptyRequiredFields(QVDynamicLinkBuilder("d", "")), Texts{"domain"});
  EXPECT_EQ(emptyRequiredFields(QVDynamicLinkBuilder("d", "g").setLinkName("")), Texts{});
  const std::string blank = std::string(bare).replace(bare.find("\"d\""), 3, "\" \"") + "}";
  EXPECT_EQ(emptyRequiredFields(*decoded(blank)), Texts{}) << "blanks are no emptiness";
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
