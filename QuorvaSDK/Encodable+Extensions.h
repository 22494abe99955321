// Records on their way to the service.

#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "platform/Codable.h"

namespace quorva {

/// The dictionary that an encoded record is; absent where it is none. A record that can't be
/// encoded is logged.
[[nodiscard]] std::optional<platform::JSONValue::Object> toDictionary(platform::JSONValue encoded);

template <platform::Encodable T>
[[nodiscard]] std::optional<platform::JSONValue::Object> toDictionary(const T& record) {
  return toDictionary(record.toJSON());
}

/// The names of the record's required texts that are empty, in its own order. Blanks are no
/// emptiness.
template <platform::Record T>
[[nodiscard]] std::vector<std::string> emptyRequiredFields(const T& record) {
  std::vector<std::string> names;
  const auto check = [&]<class Value>(const platform::CodingKey<T, Value>& key) {
    if constexpr (std::is_same_v<Value, std::string>) {
      if ((record.*key.member).empty()) names.emplace_back(key.name);
    }
  };
  std::apply([&](const auto&... keys) { (check(keys), ...); }, T::codingKeys());
  return names;
}

}  // namespace quorva
