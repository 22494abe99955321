// Records to and from JSON: a record lists its keys once, and encoding, decoding and the search for
// required texts all read that list.
//
//     struct Answer {
//       std::optional<std::string> shortURL;
//       static constexpr auto codingKeys() { return std::tuple{CodingKey{"short_url",
//       &Answer::shortURL}}; }
//     };
//
// An optional member may be missing or null and is left out when absent; any other member is
// required. Threads: pure functions. Errors: `decode` throws Error with a DecodingError and the
// path of the value that failed.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/JSON.h"
#include "platform/RawValue.h"
#include "platform/URL.h"

namespace quorva::platform {

/// A key of a record: its JSON text, its member and, where the record is checked for empty texts,
/// the member's name.
template <class Record, class Value>
struct CodingKey {
  constexpr CodingKey(std::string_view jsonKey, Value Record::*field,
                      std::string_view fieldName = {})
      : key(jsonKey), member(field), name(fieldName) {}

  std::string_view key;
  Value Record::*member;
  std::string_view name;
};

template <class T>
concept Record = requires {
  T::codingKeys();
};

template <class T>
inline constexpr bool isOptional = false;
template <class T>
inline constexpr bool isOptional<std::optional<T>> = true;

using CodingPath = std::vector<std::string>;

[[noreturn]] void failDecoding(DecodingError::Kind kind, const CodingPath& path);

// The value that `json`, found at `path`, holds. The primary template is for what is made of other
// values.
template <class T>
T decode(const JSONValue& json, const CodingPath& path);
template <>
std::string decode(const JSONValue& json, const CodingPath& path);
template <>
bool decode(const JSONValue& json, const CodingPath& path);
template <>
std::int64_t decode(const JSONValue& json, const CodingPath& path);
template <>
double decode(const JSONValue& json, const CodingPath& path);
template <>
URL decode(const JSONValue& json, const CodingPath& path);
template <>
std::map<std::string, std::string> decode(const JSONValue& json, const CodingPath& path);

/// Reads `record`'s keys from `json` in their order; the first that fails ends it. Other keys are
/// ignored.
template <Record T>
void decodeRecord(const JSONValue& json, const CodingPath& path, T& record) {
  if (json.isNull()) failDecoding(DecodingError::Kind::valueNotFound, path);
  if (!json.as<JSONValue::Object>()) failDecoding(DecodingError::Kind::typeMismatch, path);
  const auto read = [&]<class Value>(const CodingKey<T, Value>& key) {
    CodingPath keyPath = path;
    keyPath.emplace_back(key.key);
    if (const JSONValue* found = json.find(key.key)) {
      record.*key.member = decode<Value>(*found, keyPath);
    } else if constexpr (isOptional<Value>) {
      record.*key.member = std::nullopt;
    } else {
      failDecoding(DecodingError::Kind::keyNotFound, keyPath);
    }
  };
  std::apply([&](const auto&... keys) { (read(keys), ...); }, T::codingKeys());
}

template <class T>
T decode(const JSONValue& json, const CodingPath& path) {
  if constexpr (isOptional<T>) {
    return json.isNull() ? T() : T(decode<typename T::value_type>(json, path));
  } else if constexpr (std::is_enum_v<T>) {
    const auto value = fromRawValue<T>(decode<std::underlying_type_t<T>>(json, path));
    if (!value) failDecoding(DecodingError::Kind::dataCorrupted, path);
    return *value;
  } else {
    T record;
    decodeRecord(json, path, record);
    return record;
  }
}

/// As `decode`, from JSON text.
template <class T>
[[nodiscard]] T decodeText(std::string_view text) {
  return decode<T>(parseJSON(text).value(), {});
}

template <Record T>
[[nodiscard]] JSONValue encode(const T& record);

template <class T>
[[nodiscard]] JSONValue encode(const T& value) {
  if constexpr (std::is_enum_v<T>) {
    return rawValue(value);
  } else {
    return value;
  }
}

/// Whether `value` can be written as text: it's all UTF-8, and its numbers are finite.
[[nodiscard]] bool canBeWritten(const JSONValue& value) noexcept;

[[nodiscard]] JSONValue encode(const URL& value);
[[nodiscard]] JSONValue encode(const std::map<std::string, std::string>& value);

/// The object that `record` is: its keys in their order, absent members left out.
template <Record T>
[[nodiscard]] JSONValue encode(const T& record) {
  JSONValue::Object object;
  object.reserve(std::tuple_size_v<decltype(T::codingKeys())>);
  const auto write = [&]<class Value>(const CodingKey<T, Value>& key) {
    const Value& value = record.*key.member;
    if constexpr (isOptional<Value>) {
      if (value) object.emplace_back(key.key, encode(*value));
    } else {
      object.emplace_back(key.key, encode(value));
    }
  };
  std::apply([&](const auto&... keys) { (write(keys), ...); }, T::codingKeys());
  return object;
}

}  // namespace quorva::platform
