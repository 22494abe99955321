#include "platform/Codable.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "platform/Text.h"

namespace quorva::platform {
namespace {

using Kind = DecodingError::Kind;

template <class T>
const T& expect(const JSONValue& json, const CodingPath& path) {
  if (json.isNull()) failDecoding(Kind::valueNotFound, path);
  const T* value = json.as<T>();
  if (!value) failDecoding(Kind::typeMismatch, path);
  return *value;
}

// The number as a `Float`; none where it is too large, or so small that it would be 0 without being
// it.
template <class Float>
std::optional<Float> floatingPoint(const std::string& text) {
  Float value;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() ? std::optional(value) : std::nullopt;
}

// 2, 2.0 and 2e0 are all 2. A fraction too fine for a double doesn't count; every digit of a whole
// number does, hence long double, which holds all of 64 bits.
std::optional<std::int64_t> integer(const std::string& text) {
  std::int64_t plain;
  const char* last = text.data() + text.size();
  if (std::from_chars(text.data(), last, plain) == std::from_chars_result{last, std::errc()})
    return plain;

  constexpr double limit = 9223372036854775808.0;  // 2^63
  constexpr double allExact = 9007199254740992.0;  // 2^53
  const auto wide = floatingPoint<long double>(text);
  if (!wide) return std::nullopt;
  const auto value = static_cast<double>(*wide);
  if (value != std::trunc(value) || *wide < -limit || *wide >= limit) return std::nullopt;
  return static_cast<std::int64_t>(std::abs(value) < allExact ? value : *wide);
}

}  // namespace

void failDecoding(Kind kind, const CodingPath& path) {
  throwError(DecodingError(kind, path));
}

template <>
std::string decode(const JSONValue& json, const CodingPath& path) {
  return expect<std::string>(json, path);
}

template <>
bool decode(const JSONValue& json, const CodingPath& path) {
  return expect<bool>(json, path);
}

template <>
std::int64_t decode(const JSONValue& json, const CodingPath& path) {
  const auto value = integer(expect<JSONValue::Number>(json, path).text);
  if (!value) failDecoding(Kind::dataCorrupted, path);
  return *value;
}

template <>
double decode(const JSONValue& json, const CodingPath& path) {
  const auto value = floatingPoint<double>(expect<JSONValue::Number>(json, path).text);
  if (!value) failDecoding(Kind::dataCorrupted, path);
  return *value;
}

template <>
URL decode(const JSONValue& json, const CodingPath& path) {
  const auto value = URL::parse(expect<std::string>(json, path));
  if (!value) failDecoding(Kind::dataCorrupted, path);
  return *value;
}

template <>
std::map<std::string, std::string> decode(const JSONValue& json, const CodingPath& path) {
  std::map<std::string, std::string> texts;
  for (const auto& [key, value] : expect<JSONValue::Object>(json, path)) {
    CodingPath keyPath = path;
    keyPath.push_back(key);
    texts.try_emplace(key, decode<std::string>(value, keyPath));
  }
  return texts;
}

bool canBeWritten(const JSONValue& value) noexcept {
  if (const auto* digits = value.as<JSONValue::Number>()) return !digits->text.empty();
  if (const auto* text = value.as<std::string>()) return isValidUTF8(*text);
  if (const auto* array = value.as<JSONValue::Array>())
    return std::ranges::all_of(*array, canBeWritten);
  const auto* object = value.as<JSONValue::Object>();
  return !object || std::ranges::all_of(*object, [](const auto& entry) {
    return isValidUTF8(entry.first) && canBeWritten(entry.second);
  });
}

JSONValue encode(const URL& value) {
  return value.absoluteString();
}

JSONValue encode(const std::map<std::string, std::string>& value) {
  return JSONValue::Object(value.begin(), value.end());
}

}  // namespace quorva::platform
