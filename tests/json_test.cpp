// JSON in and out: what is accepted, what each refusal is called, and the exact bytes written.

#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "QuorvaSDK/Encodable+Extensions.h"
#include "QuorvaSDK/QVDynamicLinkBuilder.h"
#include "QuorvaSDK/ResolvedLink.h"
#include "platform/Codable.h"
#include "tests/Vectors.h"

namespace quorva::platform {
namespace {

using namespace std::string_view_literals;
using Strings = std::map<std::string, std::string>;

enum class Two : std::int64_t { one = 1, two = 2 };

struct Texts {
  std::optional<std::string> a;
  std::optional<std::string> b;
  static auto codingKeys() {
    return std::tuple{CodingKey{"a", &Texts::a}, CodingKey{"b", &Texts::b}};
  }
};

template <class T>
struct Only {
  T a;
  static auto codingKeys() { return std::tuple{CodingKey{"a", &Only::a}}; }
};

std::string name(const DecodingError& error) {
  constexpr std::array kinds{"dataCorrupted", "typeMismatch", "keyNotFound", "valueNotFound"};
  std::string text = kinds.at(static_cast<std::size_t>(error.kind));
  for (const auto& key : error.codingPath)
    text += (&key == &error.codingPath.front() ? " " : ".") + key;
  return text;
}

// The value that `json` decodes to, written again, or the error's name and its path.
template <class T>
std::string outcome(std::string_view json) {
  try {
    const T value = decodeText<T>(json);
    if constexpr (isOptional<T>)
      return value ? *serializeJSON(encode(*value)) : "null";
    else
      return *serializeJSON(encode(value));
  } catch (const Error& error) {
    return name(*error.as<DecodingError>());
  }
}

// The same, as an application has it decoded.
template <class T>
std::string publicOutcome(std::string_view json) {
  const auto value = JSONDecoder().decode<T>(json);
  return value ? *JSONEncoder().encode(*value) : name(*value.error().template as<DecodingError>());
}

}  // namespace

template <>
inline constexpr std::array allCases<Two>{Two::one, Two::two};

namespace {

TEST(JSON, DecodesToTheValueOrTheRightError) {
  const std::map<std::string, std::string (*)(std::string_view)> decoders{
      {"{a: String?, b: String?}", outcome<Texts>},
      {"{a: String}", outcome<Only<std::string>>},
      {"{a: 1 or 2}", outcome<Only<Two>>},
      {"{a: Int}", outcome<Only<std::int64_t>>},
      {"{a: Double}", outcome<Only<double>>},
      {"{a: Bool?}", outcome<Only<std::optional<bool>>>},
      {"{a: [String: String]?}", outcome<Only<std::optional<Strings>>>},
      {"{a: URL?}", outcome<Only<std::optional<URL>>>},
      {"Int", outcome<std::int64_t>},
      {"String", outcome<std::string>},
      {"String?", outcome<std::optional<std::string>>},
      {"Bool", outcome<bool>},
      {"link", publicOutcome<QVDynamicLinkBuilder>},
      {"ResolvedLink", publicOutcome<ResolvedLink>}};
  const auto rows = test::vectors("decoding.json");
  EXPECT_EQ(rows.size(), 144U);
  for (const auto& row : rows) {
    const std::string json =
        row.contains("json") ? row.at("json").get<std::string>() : test::bytes(row.at("json_hex"));
    const std::string result = decoders.at(row.at("decode"))(json);
    const std::string expected = row.contains("written") ? row.at("written") : row.at("error");
    // Where only the kind of an error is known, any path will do.
    const bool isKind = !row.contains("written") && expected.find(' ') == expected.npos;
    EXPECT_EQ(isKind ? result.substr(0, result.find(' ')) : result, expected) << row;
  }
}

TEST(JSON, ReadsOneValueWhateverItIsAndNothingBehindIt) {
  for (const char* text : {"null \n", "\ttrue", " false ", "-1.5e3 ", "\"a\" ", "[ ] ", "{}"})
    EXPECT_TRUE(parseJSON(text)) << text;
  for (const char* text :
       {"", " ", "null9 ", "falsey", "true1", "1,2", "1]", "]1[", "[1]x[2", "[1] 2"})
    EXPECT_FALSE(parseJSON(text)) << text;
}

TEST(JSON, BoundsItsDepth) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(parseJSON(nested(512)));
  EXPECT_FALSE(parseJSON(nested(513)));
  EXPECT_FALSE(parseJSON(std::string(1'000'000, '[')));
}

TEST(JSON, WritesDoublesShortest) {
  for (const auto& row : test::vectors("doubles.json"))
    EXPECT_EQ(*serializeJSON(row.at(0).get<double>()), row.at(1)) << row;
}

TEST(JSON, WritesTextsAndContainersCompactly) {
  const std::pair<JSONValue, std::string_view> rows[] = {
      {JSONValue::Array{JSONValue(), true, false}, "[null,true,false]"},
      {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
      {"\"\\", R"("\"\\")"},
      {"https://h/p?q=1#f", R"("https:\/\/h\/p?q=1#f")"},
      {"\b\f\n\r\t\x01\x1F\x7F", "\"\\b\\f\\n\\r\\t\\u0001\\u001f\x7F\""},
      {"\0"sv, R"("\u0000")"},
      {"é日😀\u2028\u2029\u0085\u00A0\uFEFF", "\"é日😀\u2028\u2029\u0085\u00A0\uFEFF\""},
      {JSONValue::Object{{"z", "1"}, {"a", 2}, {"é", 3}}, R"({"z":"1","a":2,"é":3})"},
      {JSONValue::Object{{"d", JSONValue::Object{{"a", JSONValue::Array{1, "x"}}}}},
       R"({"d":{"a":[1,"x"]}})"}};
  for (const auto& [value, text] : rows) {
    EXPECT_EQ(*serializeJSON(value), text);
    EXPECT_TRUE(canBeWritten(value));
  }
}

TEST(JSON, RefusesToWriteWhatItCannotHold) {
  for (const JSONValue& value :
       {JSONValue("\xFF"), JSONValue(std::numeric_limits<double>::infinity()),
        JSONValue(JSONValue::Object{{"\xC0\x80", 1}})}) {
    const auto result = serializeJSON(value);
    ASSERT_FALSE(result);
    EXPECT_FALSE(canBeWritten(value));
    EXPECT_TRUE(result.error().as<EncodingError>());
    EXPECT_EQ(result.error().localizedDescription(),
              "The data couldn’t be written because it isn’t in the correct format.");
  }
}

TEST(JSON, ErrorsReadAsTwoTexts) {
  using Kind = DecodingError::Kind;
  for (const auto kind : {Kind::dataCorrupted, Kind::typeMismatch})
    EXPECT_EQ(DecodingError(kind).errorDescription(),
              "The data couldn’t be read because it isn’t in the correct format.");
  for (const auto kind : {Kind::keyNotFound, Kind::valueNotFound})
    EXPECT_EQ(DecodingError(kind).errorDescription(),
              "The data couldn’t be read because it is missing.");
  EXPECT_EQ(outcome<Only<std::string>>(R"({"a":null})"), "valueNotFound a");
  EXPECT_EQ(outcome<Only<std::string>>("null"), "valueNotFound");
}

}  // namespace
}  // namespace quorva::platform
