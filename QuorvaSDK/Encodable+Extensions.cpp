#include "QuorvaSDK/Encodable+Extensions.h"

#include <utility>

#include "QuorvaSDK/QVLogger.h"

namespace quorva {

using platform::JSONValue;

std::optional<JSONValue::Object> toDictionary(JSONValue encoded) {
  if (platform::canBeWritten(encoded)) return std::move(encoded).take<JSONValue::Object>();
  const platform::Error error{platform::EncodingError{}};
  QVLogger::log(LogLevel::error, "Failed to convert to dictionary: " + error.localizedDescription(),
                "toDictionary()");
  return std::nullopt;
}

}  // namespace quorva
