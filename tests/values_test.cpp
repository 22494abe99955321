// Texts, URLs, dates and errors.

#include <gtest/gtest.h>

#include "platform/Date.h"
#include "platform/Error.h"
#include "platform/Text.h"
#include "platform/URL.h"
#include "platform/URLError.h"
#include "tests/Vectors.h"

namespace quorva::platform {
namespace {

using namespace std::string_view_literals;

TEST(Text, TrimsWhitespaceAndNothingElse) {
  const std::pair<std::string_view, std::string_view> rows[] = {
      {" ", ""},
      {"\r\nabc\r\n", "abc"},
      {" a b ", "a b"},
      {"\u00A0a\u00A0", "a"},
      {"\u3000a", "a"},
      {"a\u20D0 ", "a\u20D0"},
      {"\t\v\f \xC2\x85\u1680\u2000\u200A\u2028\u2029\u202F\u205F", ""}};
  for (const auto& [text, expected] : rows) EXPECT_EQ(trimmed(text), expected) << text;
  // The last begins and ends with bytes that only end white space's encodings.
  for (const auto text :
       {"\0a\0"sv, "\ba\x7F"sv, "\u0301 a"sv, "\u2800a"sv, "\u200Ba\uFEFF"sv, "\x85z\xA0"sv})
    EXPECT_EQ(trimmed(text), text);
}

TEST(Text, IsUTF8WithinTheBoundsOfEachLength) {
  for (const auto text : {""sv, "\0\x7F"sv, "\xC2\x80\xDF\xBF"sv, "\xE0\xA0\x80\xEF\xBF\xBF"sv,
                          "\xED\x9F\xBF\xEE\x80\x80"sv, "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"sv})
    EXPECT_TRUE(isValidUTF8(text)) << text;
  for (const auto text :
       {"\x80"sv, "\xC1\xBF"sv, "\xC2"sv, "\xC2\x7F"sv, "\xC2\xC0"sv, "\xE0\x9F\xBF"sv,
        "\xED\xA0\x80"sv, "\xE1\x80"sv, "\xE1\x80\xC0"sv, "\xF0\x8F\xBF\xBF"sv,
        "\xF4\x90\x80\x80"sv, "\xF1\x80\x80"sv, "\xF5\x80\x80\x80"sv, "\xFF"sv})
    EXPECT_FALSE(isValidUTF8(text)) << text;
}

TEST(URL, IsKeptEncodedOrRefusedAndNamesItsHost) {
  const auto rows = test::vectors("urls.json");
  for (const std::string text : rows.at("kept"))
    EXPECT_EQ(URL::parse(text).value().absoluteString(), text);
  for (const auto& row : rows.at("encoded"))
    EXPECT_EQ(URL::parse(row[0].get<std::string>()).value().absoluteString(), row[1]);
  for (const std::string text : rows.at("refused")) EXPECT_FALSE(URL::parse(text)) << text;
  EXPECT_FALSE(URL::parse("https://example.com/\xFF"));
  for (const auto& row : rows.at("hosts"))
    EXPECT_EQ(URL::parse(row[0].get<std::string>()).value().host(), row[1]);
}

TEST(Date, IsWrittenInUTCToWholeSeconds) {
  const std::pair<long, std::string_view> rows[] = {
      {1741944414, "2025-03-14T09:26:54Z"}, {951782400, "2000-02-29T00:00:00Z"},
      {1709164800, "2024-02-29T00:00:00Z"}, {253402300799, "9999-12-31T23:59:59Z"},
      {4102444800, "2100-01-01T00:00:00Z"}, {-1, "1969-12-31T23:59:59Z"}};
  for (const auto& [seconds, text] : rows)
    EXPECT_EQ(iso8601(std::chrono::sys_seconds(std::chrono::seconds(seconds))), text);
}

TEST(Error, CarriesItsErrorUnchanged) {
  const Error error = URLError(URLError::Code::timedOut, "curl said so");
  const Error copy = error;
  ASSERT_TRUE(copy.as<URLError>());
  EXPECT_EQ(copy.as<URLError>()->code, URLError::Code::timedOut);
  EXPECT_EQ(copy.as<URLError>()->underlying, "curl said so");
  EXPECT_EQ(copy.as<ForeignError>(), nullptr);
  EXPECT_EQ(copy.localizedDescription(), "The request timed out.");
  EXPECT_STREQ(copy.what(), "The request timed out.");
}

TEST(Error, TakesInAnyException) {
  const auto description = [](auto thrown) {
    return Error::from(std::make_exception_ptr(thrown)).localizedDescription();
  };
  EXPECT_EQ(description(Error(URLError(URLError::Code::badURL))), "bad URL");
  EXPECT_EQ(description(std::runtime_error("host's own")), "host's own");
  EXPECT_EQ(description(42), "unknown exception");
}

}  // namespace
}  // namespace quorva::platform
