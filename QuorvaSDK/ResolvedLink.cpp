#include "QuorvaSDK/ResolvedLink.h"

#include <tuple>

#include "platform/Codable.h"

namespace quorva {

auto ResolvedLink::Fields::codingKeys() {
  return std::tuple{platform::CodingKey{"link", &Fields::link},
                    platform::CodingKey{"originalURL", &Fields::originalURL}};
}

JSONValue ResolvedLink::toJSON() const {
  return platform::encode(fields_);
}

Result<ResolvedLink> ResolvedLink::fromJSON(const JSONValue& json) {
  try {
    return ResolvedLink(platform::decode<Fields>(json, {}));
  } catch (const Error& error) {
    return error;
  }
}

}  // namespace quorva
