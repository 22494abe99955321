#include "QuorvaSDK/Encodable+Extensions.h"

#include "QuorvaSDK/QVLogger.h"

namespace quorva {

using platform::JSONValue;

std::optional<JSONValue::Object> toDictionary(const JSONValue& encoded) {
  try {
    // What can't be written is no JSON.
    static_cast<void>(platform::serializeJSON(encoded).value());
    const auto* dictionary = encoded.as<JSONValue::Object>();
    return dictionary ? std::optional(*dictionary) : std::nullopt;
  } catch (const platform::Error& error) {
    QVLogger::log(LogLevel::error,
                  "Failed to convert to dictionary: " + error.localizedDescription(),
                  "toDictionary()");
    return std::nullopt;
  }
}

}  // namespace quorva
