// A link's description: from JSON that a host kept somewhere, and from the texts in it.

#include "QuorvaSDK/Encodable+Extensions.h"
#include "QuorvaSDK/QVDynamicLinkBuilder.h"
#include "tests/fuzz/Fuzz.h"

using namespace quorva;

void fuzz(std::string_view text) {
  const auto link = JSONDecoder().decode<QVDynamicLinkBuilder>(text);
  if (!link) return check(link.error().as<DecodingError>());
  const std::string written = JSONEncoder().encode(*link).value();
  check(JSONDecoder().decode<QVDynamicLinkBuilder>(written).value() == *link);
  check(toDictionary(*link).has_value());
  check(emptyRequiredFields(*link).size() <= 2);
}
